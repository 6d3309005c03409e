// Listener reports to lines on a pipe and back.
#include "run/EventCodec.h"

#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <limits>
#include <vector>

namespace check {
namespace {

void Escape(const std::string& text, std::string* out) {
  for (char c : text) {
    switch (c) {
      case '\\': *out += "\\\\"; break;
      case '\t': *out += "\\t"; break;
      case '\n': *out += "\\n"; break;
      default: *out += c;
    }
  }
}

class Line {
 public:
  explicit Line(char kind) { text_ += kind; }
  Line& Text(const std::string& field) {
    text_ += '\t';
    Escape(field, &text_);
    return *this;
  }
  Line& Number(uint64_t value) {
    text_ += '\t';
    text_ += std::to_string(value);
    return *this;
  }
  [[nodiscard]] const std::string& str() const { return text_; }

 private:
  std::string text_;
};

bool Unescape(const std::string& field, std::string* out) {
  out->clear();
  for (std::size_t i = 0; i < field.size(); ++i) {
    if (field[i] != '\\') {
      *out += field[i];
      continue;
    }
    if (++i == field.size()) return false;
    switch (field[i]) {
      case '\\': *out += '\\'; break;
      case 't': *out += '\t'; break;
      case 'n': *out += '\n'; break;
      default: return false;
    }
  }
  return true;
}

bool ParseNumber(const std::string& field, uint64_t max, uint64_t* out) {
  if (field.empty() || field.size() > 20) return false;
  uint64_t value = 0;
  for (char c : field) {
    if (c < '0' || c > '9') return false;
    const uint64_t digit = static_cast<uint64_t>(c - '0');
    if (value > (max - digit) / 10) return false;
    value = value * 10 + digit;
  }
  *out = value;
  return true;
}

std::vector<std::string> Split(const std::string& line) {
  std::vector<std::string> fields;
  std::size_t start = 0;
  for (;;) {
    const std::size_t tab = line.find('\t', start);
    fields.push_back(line.substr(start, tab == std::string::npos ? std::string::npos : tab - start));
    if (tab == std::string::npos) return fields;
    start = tab + 1;
  }
}

// Field access with the checks every decoder needs.
class Fields {
 public:
  explicit Fields(const std::string& line) : fields_(Split(line)) {}
  [[nodiscard]] bool Count(std::size_t n) const { return fields_.size() == n + 1 && fields_[0].size() == 1; }
  [[nodiscard]] char Kind() const { return fields_[0].empty() ? '\0' : fields_[0][0]; }
  bool Text(std::size_t i, std::string* out) const { return Unescape(fields_[i], out); }
  bool U64(std::size_t i, uint64_t* out) const {
    return ParseNumber(fields_[i], std::numeric_limits<uint64_t>::max(), out);
  }
  bool U32(std::size_t i, uint32_t* out) const {
    uint64_t v = 0;
    if (!ParseNumber(fields_[i], std::numeric_limits<uint32_t>::max(), &v)) return false;
    *out = static_cast<uint32_t>(v);
    return true;
  }

 private:
  std::vector<std::string> fields_;
};

const char kVerdictLetters[] = {'p', 'f', 's'};

}  // namespace

void LineWriter::Add(const std::string& line, bool now) {
  std::lock_guard<std::mutex> lock(mutex_);
  pending_ += line;
  pending_ += '\n';
  if (now || std::chrono::steady_clock::now() - lastWrite_ >= kMostBuffered) WritePending();
}

void LineWriter::Flush() {
  std::lock_guard<std::mutex> lock(mutex_);
  WritePending();
}

void LineWriter::WritePending() {
  const char* p = pending_.data();
  std::size_t left = pending_.size();
  while (left > 0) {
    const ssize_t n = ::write(fd_, p, left);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) break;
    p += n;
    left -= static_cast<std::size_t>(n);
  }
  pending_.clear();
  lastWrite_ = std::chrono::steady_clock::now();
}

void LineWriter::Ready() { Add(Line('R').str(), true); }

void LineWriter::Unusable(const std::string& reason) { Add(Line('U').Text(reason).str(), true); }

void LineWriter::CaseBegin(int id, unsigned run) {
  Add(Line('B').Number(static_cast<uint64_t>(id)).Number(run).str(), true);
}

void LineWriter::CallBegin(const std::string& function) { Add(Line('C').Text(function).str(), false); }

void LineWriter::CallEnd(const CallRecord& call) {
  Add(Line('D')
          .Text(call.function)
          .Number(call.duration_us)
          .Number(static_cast<uint32_t>(call.rc))
          .Number(call.tee_result)
          .Number(call.tee_origin)
          .str(),
      false);
}

void LineWriter::CancelRequested(const std::string& function) {
  Add(Line('X').Text(function).str(), true);
}

std::string EncodeCheck(const CheckRecord& check) {
  return Line('K')
      .Number(check.passed ? 1 : 0)
      .Number(check.at_us)
      .Text(check.name)
      .Text(check.expected)
      .Text(check.actual)
      .Text(check.detail)
      .str();
}

void LineWriter::Check(const CheckRecord& check) { Add(EncodeCheck(check), false); }

void LineWriter::CaseEnd(Verdict verdict, const std::string& reason, uint64_t duration_us) {
  Add(Line('E')
          .Text(std::string(1, kVerdictLetters[static_cast<int>(verdict)]))
          .Number(duration_us)
          .Text(reason)
          .str(),
      true);
}

void LineWriter::WalletLeft(bool ok, const std::string& detail) {
  Add(Line('L').Number(ok ? 1 : 0).Text(detail).str(), true);
}

bool DecodeLine(const std::string& line, Listener& to) {
  const Fields f(line);
  switch (f.Kind()) {
    case 'R':
      if (!f.Count(0)) return false;
      to.Ready();
      return true;
    case 'U': {
      std::string reason;
      if (!f.Count(1) || !f.Text(1, &reason)) return false;
      to.Unusable(reason);
      return true;
    }
    case 'B': {
      uint32_t id = 0, run = 0;
      if (!f.Count(2) || !f.U32(1, &id) || !f.U32(2, &run) ||
          id > static_cast<uint32_t>(std::numeric_limits<int>::max())) {
        return false;
      }
      to.CaseBegin(static_cast<int>(id), run);
      return true;
    }
    case 'C':
    case 'X': {
      std::string function;
      if (!f.Count(1) || !f.Text(1, &function)) return false;
      if (f.Kind() == 'C') {
        to.CallBegin(function);
      } else {
        to.CancelRequested(function);
      }
      return true;
    }
    case 'D': {
      CallRecord call;
      uint32_t rc = 0;
      if (!f.Count(5) || !f.Text(1, &call.function) || !f.U64(2, &call.duration_us) ||
          !f.U32(3, &rc) || !f.U32(4, &call.tee_result) || !f.U32(5, &call.tee_origin)) {
        return false;
      }
      call.rc = static_cast<int32_t>(rc);
      to.CallEnd(call);
      return true;
    }
    case 'K': {
      CheckRecord check;
      uint32_t passed = 0;
      if (!f.Count(6) || !f.U32(1, &passed) || passed > 1 || !f.U64(2, &check.at_us) ||
          !f.Text(3, &check.name) || !f.Text(4, &check.expected) || !f.Text(5, &check.actual) ||
          !f.Text(6, &check.detail)) {
        return false;
      }
      check.passed = passed == 1;
      to.Check(check);
      return true;
    }
    case 'E': {
      std::string letter, reason;
      uint64_t us = 0;
      if (!f.Count(3) || !f.Text(1, &letter) || letter.size() != 1 || !f.U64(2, &us) ||
          !f.Text(3, &reason)) {
        return false;
      }
      for (int v = 0; v < 3; ++v) {
        if (letter[0] == kVerdictLetters[v]) {
          to.CaseEnd(static_cast<Verdict>(v), reason, us);
          return true;
        }
      }
      return false;
    }
    case 'L': {
      uint32_t ok = 0;
      std::string detail;
      if (!f.Count(2) || !f.U32(1, &ok) || ok > 1 || !f.Text(2, &detail)) return false;
      to.WalletLeft(ok == 1, detail);
      return true;
    }
    default:
      return false;
  }
}

void LineSplitter::Feed(const char* data, std::size_t size) {
  if (malformed_) return;
  if (start_ > 0 && start_ == buffer_.size()) {
    buffer_.clear();
    start_ = 0;
  }
  buffer_.append(data, size);
}

bool LineSplitter::Next(std::string* line) {
  if (malformed_) return false;
  const std::size_t end = buffer_.find('\n', start_);
  if (end == std::string::npos) {
    if (buffer_.size() - start_ > kMaxLine) malformed_ = true;
    return false;
  }
  if (end - start_ > kMaxLine) {
    malformed_ = true;
    return false;
  }
  line->assign(buffer_, start_, end - start_);
  start_ = end + 1;
  if (start_ > kMaxLine) {  // drop what was handed out, now and then
    buffer_.erase(0, start_);
    start_ = 0;
  }
  return true;
}

}  // namespace check
