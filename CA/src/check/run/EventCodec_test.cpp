// Reports through the pipe format and back, and every malformed line.
#include "run/EventCodec.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <string>

#include "cases/RecordingListener.h"

namespace check {
namespace {

// Everything a LineWriter wrote into a pipe, once it is flushed.
class Pipe {
 public:
  Pipe() { EXPECT_EQ(::pipe2(fds_, O_NONBLOCK), 0); }
  ~Pipe() {
    ::close(fds_[0]);
    if (fds_[1] >= 0) ::close(fds_[1]);
  }
  int writer() const { return fds_[1]; }
  // What is in the pipe now (the writer stays open).
  std::string ReadAvailable() {
    std::string text;
    char buffer[4096];
    ssize_t n;
    while ((n = ::read(fds_[0], buffer, sizeof buffer)) > 0) text.append(buffer, static_cast<std::size_t>(n));
    return text;
  }
  // Everything, up to the end of the stream.
  std::string ReadAll() {
    ::close(fds_[1]);
    fds_[1] = -1;
    return ReadAvailable();
  }

 private:
  int fds_[2] = {-1, -1};
};

void EveryReport(Listener& l, const std::string& text) {
  l.Ready();
  l.Unusable(text);
  l.CaseBegin(1001, 3);
  l.CallBegin("poc_getAddress");
  l.CallEnd({"poc_getAddress", 1234567890123ull, -99, 0xFFFF0008u, 4});
  l.CancelRequested("poc_check_pin");
  CheckRecord check;
  check.name = text;
  check.passed = false;
  check.expected = "e" + text;
  check.actual = text + "a";
  check.detail = "";
  check.at_us = 77;
  l.Check(check);
  check.passed = true;
  l.Check(check);
  l.CaseEnd(Verdict::kFailed, text, 99);
  l.CaseEnd(Verdict::kSkipped, "", 0);
  l.CaseEnd(Verdict::kPassed, "", 1);
  l.WalletLeft(false, text);
  l.WalletLeft(true, "");
}

TEST(EventCodec, EveryReportSurvivesThePipeWhateverItsText) {
  const std::string text = "tab\there, line\nbreak, back\\slash \\t and \\\\n, \x01\x7f\xff";
  RecordingListener direct;
  EveryReport(direct, text);

  Pipe pipe;
  {
    LineWriter writer(pipe.writer());
    EveryReport(writer, text);
  }
  LineSplitter split;
  const std::string stream = pipe.ReadAll();
  split.Feed(stream.data(), stream.size());
  RecordingListener decoded;
  std::string line;
  unsigned lines = 0;
  while (split.Next(&line)) {
    ASSERT_TRUE(DecodeLine(line, decoded)) << line;
    ++lines;
  }
  EXPECT_EQ(lines, 13u);
  EXPECT_EQ(decoded.Lines(), direct.Lines());
}

TEST(EventCodec, CallsAndChecksWaitForTheNextReportTheRunnerActsOn) {
  Pipe pipe;
  LineWriter writer(pipe.writer());
  writer.CaseBegin(5001, 1);
  EXPECT_EQ(pipe.ReadAvailable(), "B\t5001\t1\n");
  writer.CallBegin("poc_check_mnemonic");
  writer.CallEnd({"poc_check_mnemonic", 10, 0, 0, 4});
  CheckRecord check;
  check.name = "n";
  check.passed = true;
  writer.Check(check);
  EXPECT_EQ(pipe.ReadAvailable(), "") << "buffered until the case ends";
  writer.CaseEnd(Verdict::kPassed, "", 10);
  EXPECT_EQ(pipe.ReadAvailable(),
            "C\tpoc_check_mnemonic\nD\tpoc_check_mnemonic\t10\t0\t0\t4\nK\t1\t0\tn\t\t\t\n"
            "E\tp\t10\t\n");
  writer.CancelRequested("poc_check_pin");
  EXPECT_EQ(pipe.ReadAvailable(), "X\tpoc_check_pin\n");
}

TEST(EventCodec, EncodedCheckIsOneTabSeparatedLine) {
  CheckRecord check;
  check.name = "a\tb";
  check.passed = true;
  check.at_us = 5;
  EXPECT_EQ(EncodeCheck(check), "K\t1\t5\ta\\tb\t\t\t");
}

TEST(EventCodec, MalformedLinesDeliverNothing) {
  RecordingListener l;
  for (const char* bad : {
           "", "Q", "R\t", "U", "U\ta\tb", "B\t1", "B\tx\t1", "B\t-1\t1", "B\t4294967296\t1",
           "B\t2147483648\t1", "C", "D\tf\t1\t2\t3", "D\tf\t1\t2\t3\t4294967296",
           "D\tf\t18446744073709551616\t0\t0\t0", "K\t2\t0\tn\te\ta\td", "K\t1\t0\tn\te\ta",
           "E\tp\t1", "E\tq\t1\tr", "E\tpp\t1\tr", "L\t2\tx", "L\t1", "U\tbad \\x escape",
           "U\tends with \\", "RR", "B\t1\t1 ",
       }) {
    EXPECT_FALSE(DecodeLine(bad, l)) << "'" << bad << "'";
  }
  EXPECT_TRUE(l.Lines().empty());
  EXPECT_TRUE(DecodeLine("D\tf\t18446744073709551615\t4294967295\t0\t0", l));
  EXPECT_EQ(l.Lines().back(), "end|f|18446744073709551615|-1|0|0");
}

TEST(EventCodec, SplitterCutsLinesAcrossFeeds) {
  LineSplitter split;
  std::string line;
  split.Feed("R\nB\t1", 5);
  ASSERT_TRUE(split.Next(&line));
  EXPECT_EQ(line, "R");
  EXPECT_FALSE(split.Next(&line));
  split.Feed("001\t1\n\nX", 9);
  ASSERT_TRUE(split.Next(&line));
  EXPECT_EQ(line, "B\t1001\t1");
  ASSERT_TRUE(split.Next(&line));
  EXPECT_EQ(line, "");
  EXPECT_FALSE(split.Next(&line));
  EXPECT_FALSE(split.malformed());
}

TEST(EventCodec, SplitterRefusesALineLongerThanAWorkerWrites) {
  LineSplitter split;
  const std::string chunk(64 * 1024, 'a');
  std::string line;
  for (std::size_t fed = 0; fed <= LineSplitter::kMaxLine; fed += chunk.size()) {
    split.Feed(chunk.data(), chunk.size());
    EXPECT_FALSE(split.Next(&line));
  }
  EXPECT_TRUE(split.malformed());
  split.Feed("\n", 1);
  EXPECT_FALSE(split.Next(&line));
}

}  // namespace
}  // namespace check
