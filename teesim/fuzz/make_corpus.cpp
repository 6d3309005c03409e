/* Writes the seed corpus of teesim_wire_fuzz: one valid frame of each
 * message shape, prefixed with the descriptor count it expects. Run when the
 * format changes: `cmake --build <build> --target teesim_wire_corpus`
 * rewrites fuzz/corpus/ (or run teesim_wire_make_corpus <dir> by hand). */
#include <cstdio>
#include <string>
#include <vector>

#include "teesim/wire.h"

namespace w = teesim::wire;

namespace {

const char* g_dir;

template <typename M>
void put(const char* name, const M& m, uint8_t nfds) {
  std::vector<uint8_t> frame;
  if (w::encode(frame, 7, m) != w::Status::Ok) {
    std::fprintf(stderr, "cannot encode %s\n", name);
    std::exit(1);
  }
  std::string path = std::string(g_dir) + "/" + name;
  FILE* f = std::fopen(path.c_str(), "wb");
  if (f == nullptr) std::exit(1);
  std::fputc(nfds, f);
  std::fwrite(frame.data(), 1, frame.size(), f);
  std::fclose(f);
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 2) return 2;
  g_dir = argv[1];
  static const uint8_t bytes[24] = {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12,
                                    13, 14, 15, 16, 17, 18, 19, 20, 21, 22, 23, 24};
  w::Params req;
  req[0].kind = w::ParamKind::ValueInOut;
  req[0].a = 1;
  req[1].kind = w::ParamKind::BufIn;
  req[1].size = sizeof bytes;
  req[1].data = bytes;
  req[2].kind = w::ParamKind::BufOut;
  req[2].size = 16;
  req[3].kind = w::ParamKind::ShmInOut;
  req[3].shm_id = 3;
  req[3].shm_flags = w::kShmFdAttached;
  req[3].size = 8192;
  w::Params rep;
  rep[0].kind = w::ParamKind::ValueInOut;
  rep[1].kind = w::ParamKind::BufIn;
  rep[2].kind = w::ParamKind::BufOut;
  rep[2].size = 8;
  rep[2].data_len = 8;
  rep[2].data = bytes;
  rep[3].kind = w::ParamKind::ShmInOut;
  rep[3].size = 100;

  put("hello", w::Hello{1234}, 0);
  put("hello_reply", w::HelloReply{1, w::kMaxShmSize}, 0);
  put("refused", w::Refused{0xFFFF000Du, "too many connections"}, 0);
  w::OpenSession os;
  os.login = w::Login::Group;
  os.has_group = true;
  os.params = req;
  put("open_session", os, 1);
  w::OpenSessionReply osr;
  osr.params = rep;
  put("open_session_reply", osr, 1);
  w::Invoke inv;
  inv.command = 5;
  inv.params = req;
  put("invoke", inv, 1);
  w::InvokeReply ir;
  ir.params = rep;
  put("invoke_reply", ir, 0);
  put("close", w::CloseSession{}, 0);
  put("close_reply", w::CloseSessionReply{}, 0);
  put("shm_forget", w::ShmForget{3}, 0);
  w::HostInit hi;
  hi.ta_path = "/ta/x.ta";
  hi.storage_dir = "/s";
  put("host_init", hi, 0);
  w::HostInitReply hir;
  hir.name = "echo";
  put("host_init_reply", hir, 0);
  w::HostOpen ho;
  ho.params = req;
  put("host_open", ho, 2);
  w::HostOpenReply hor;
  hor.params = rep;
  put("host_open_reply", hor, 0);
  put("host_session_closed", w::HostSessionClosed{9}, 0);
  put("host_destroy", w::HostDestroy{}, 0);
  return 0;
}
