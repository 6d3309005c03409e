/* Client identities by login method, from the socket peer's credentials. */
#include "daemon/identity.h"

#include <openssl/evp.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>

#include "tee_internal_api.h"

namespace teesim::daemon {

namespace {

using wire::Login;

/* The namespace of teesim client identities (a fixed random UUID). */
constexpr uint8_t kNamespace[16] = {0x3c, 0x5e, 0x0b, 0x9a, 0x61, 0x4f, 0x4d, 0x22,
                                    0x9b, 0x1e, 0x70, 0xd4, 0x2a, 0x86, 0xc5, 0x13};

}  // namespace

bool read_peer_credentials(int fd, PeerCredentials* out) {
  ucred cred{};
  socklen_t len = sizeof cred;
  if (::getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &cred, &len) != 0) return false;
  out->pid = cred.pid;
  out->uid = cred.uid;
  out->gid = cred.gid;
  std::vector<gid_t> groups(64);
  len = static_cast<socklen_t>(groups.size() * sizeof(gid_t));
  if (::getsockopt(fd, SOL_SOCKET, SO_PEERGROUPS, groups.data(), &len) != 0 && errno == ERANGE) {
    groups.resize(len / sizeof(gid_t));
    (void)::getsockopt(fd, SOL_SOCKET, SO_PEERGROUPS, groups.data(), &len);
  }
  groups.resize(len / sizeof(gid_t));
  out->groups = std::move(groups);
  char exe[PATH_MAX];
  std::string link = "/proc/" + std::to_string(cred.pid) + "/exe";
  ssize_t n = ::readlink(link.c_str(), exe, sizeof exe - 1);
  out->exe = n > 0 ? std::string(exe, static_cast<size_t>(n)) : std::string();
  return true;
}

Uuid name_uuid(const std::string& name) {
  std::string input(reinterpret_cast<const char*>(kNamespace), sizeof kNamespace);
  input += name;
  uint8_t digest[EVP_MAX_MD_SIZE] = {};
  unsigned int len = 0;
  /* SHA-1 is what version 5 UUIDs are defined with; no secrecy rests on it. */
  (void)EVP_Digest(input.data(), input.size(), digest, &len, EVP_sha1(), nullptr);
  Uuid u;
  std::copy(digest, digest + 16, u.bytes.begin());
  u.bytes[6] = static_cast<uint8_t>((u.bytes[6] & 0x0F) | 0x50); /* version 5 */
  u.bytes[8] = static_cast<uint8_t>((u.bytes[8] & 0x3F) | 0x80); /* RFC 4122 variant */
  return u;
}

uint32_t client_identity(Login login, bool has_group, uint32_t group,
                         const PeerCredentials& peer, Uuid* identity) {
  const std::string uid = "uid:" + std::to_string(peer.uid);
  const std::string gid = "gid:" + std::to_string(group);
  const std::string app = "app:" + peer.exe;
  const bool needs_group = login == Login::Group || login == Login::GroupApplication;
  const bool needs_app = login == Login::Application || login == Login::UserApplication ||
                         login == Login::GroupApplication;
  switch (login) {
    case Login::Public:
    case Login::User:
    case Login::Group:
    case Login::Application:
    case Login::UserApplication:
    case Login::GroupApplication:
      break;
    default:
      return TEE_ERROR_BAD_PARAMETERS;
  }
  if (needs_group) {
    if (!has_group) return TEE_ERROR_BAD_PARAMETERS;
    bool member = peer.gid == group ||
                  std::find(peer.groups.begin(), peer.groups.end(), static_cast<gid_t>(group)) !=
                      peer.groups.end();
    if (!member) return TEE_ERROR_ACCESS_DENIED;
  }
  if (needs_app && peer.exe.empty()) return TEE_ERROR_ACCESS_DENIED;
  switch (login) {
    case Login::Public: *identity = Uuid{}; break;
    case Login::User: *identity = name_uuid(uid); break;
    case Login::Group: *identity = name_uuid(gid); break;
    case Login::Application: *identity = name_uuid(app); break;
    case Login::UserApplication: *identity = name_uuid(uid + "|" + app); break;
    default: *identity = name_uuid(gid + "|" + app); break;
  }
  return TEE_SUCCESS;
}

}  // namespace teesim::daemon
