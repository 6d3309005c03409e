// Tests of the serializer: the documented byte layout, bounds, and every
// misuse.
#include "CTzfrWsm.h"

#include <gtest/gtest.h>

#include <array>
#include <cstring>
#include <vector>

namespace {

using Bytes = std::vector<unsigned char>;

// A shared-memory descriptor of the GP Client API's shape; the serializer
// reads only its buffer and size, so it needs no TEE library.
struct SharedMemoryBlock {
  void* buffer;
  std::size_t size;
  uint32_t flags;
};

uint32_t Le32(const Bytes& b, std::size_t at) {
  return static_cast<uint32_t>(b[at]) | static_cast<uint32_t>(b[at + 1]) << 8 |
         static_cast<uint32_t>(b[at + 2]) << 16 | static_cast<uint32_t>(b[at + 3]) << 24;
}

TEST(CTzfrWsm, WritesTheDocumentedByteLayout) {
  Bytes buf(64, 0xEE);
  CTzfrWsm w(buf.data(), buf.size());
  ASSERT_TRUE(w.PutUint(0x01020304u));
  const unsigned char blob[5] = {'h', 'e', 'l', 'l', 'o'};
  ASSERT_TRUE(w.PutBlob(blob, 5));

  const Bytes expected = {
      'T', 'Z', 'W', '1', 28, 0, 0, 0,                  // header: 28 bytes of fields
      1, 0, 0, 0, 4, 0, 0, 0, 0x04, 0x03, 0x02, 0x01,  // value field
      2, 0, 0, 0, 5, 0, 0, 0, 'h', 'e', 'l', 'l', 'o', 0, 0, 0};  // blob, padded
  EXPECT_EQ(Bytes(buf.begin(), buf.begin() + expected.size()), expected);
  EXPECT_EQ(buf[expected.size()], 0xEE) << "nothing written past the message";
  EXPECT_EQ(w.MessageSize(), expected.size());
}

TEST(CTzfrWsm, RoundTripsValuesAndBlobsInOrder) {
  Bytes buf(8192);
  CTzfrWsm w(buf.data(), buf.size());
  const std::array<unsigned char, 32> cred = {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16,
                                              17, 18, 19, 20, 21, 22, 23, 24, 25, 26, 27, 28, 29, 30, 31, 32};
  const unsigned char data[3] = {0xAA, 0xBB, 0xCC};
  ASSERT_TRUE(w.PutBlob(cred.data(), 32));
  ASSERT_TRUE(w.PutUint(340));
  ASSERT_TRUE(w.PutUint(0xFFFFFFFFu));
  ASSERT_TRUE(w.PutBlob(data, 3));
  ASSERT_TRUE(w.PutBlob(nullptr, 0));

  CTzfrWsm r(buf.data(), buf.size());
  ASSERT_TRUE(r.PrepareReset(1));
  const void* p = r.GetBlob(32);
  ASSERT_NE(p, nullptr);
  EXPECT_EQ(std::memcmp(p, cred.data(), 32), 0);
  unsigned v = 0;
  ASSERT_TRUE(r.GetUint(&v));
  EXPECT_EQ(v, 340u);
  ASSERT_TRUE(r.GetUint(&v));
  EXPECT_EQ(v, 0xFFFFFFFFu);
  p = r.GetBlob(3);
  ASSERT_NE(p, nullptr);
  EXPECT_EQ(std::memcmp(p, data, 3), 0);
  EXPECT_FALSE(r.AtEnd());
  EXPECT_NE(r.GetBlob(0), nullptr);
  EXPECT_TRUE(r.AtEnd());
  EXPECT_FALSE(r.GetUint(&v)) << "no field is left";
}

TEST(CTzfrWsm, ConstructsOnSharedMemoryDescriptor) {
  Bytes mem(8192);
  SharedMemoryBlock shm{};
  shm.buffer = mem.data();
  shm.size = mem.size();
  CTzfrWsm w(&shm);
  ASSERT_TRUE(w.PutUint(7));
  EXPECT_EQ(Le32(mem, 4), 12u);
  CTzfrWsm r(&shm);
  ASSERT_TRUE(r.PrepareReset(1));
  unsigned v = 0;
  ASSERT_TRUE(r.GetUint(&v));
  EXPECT_EQ(v, 7u);
}

TEST(CTzfrWsm, UnusableDescriptorFailsEveryOperation) {
  SharedMemoryBlock empty{};
  CTzfrWsm no_descriptor(static_cast<SharedMemoryBlock*>(nullptr));
  CTzfrWsm no_buffer(&empty);
  CTzfrWsm null_memory(nullptr, 100);
  for (CTzfrWsm* w : {&no_descriptor, &no_buffer, &null_memory}) {
    unsigned v = 0;
    EXPECT_FALSE(w->PutUint(1));
    EXPECT_FALSE(w->PutBlob("x", 1));
    EXPECT_FALSE(w->PrepareReset(0));
    EXPECT_FALSE(w->PrepareReset(1));
    EXPECT_FALSE(w->GetUint(&v));
    EXPECT_EQ(w->GetBlob(0), nullptr);
    EXPECT_EQ(w->MessageSize(), 0u);
  }
  unsigned char tiny[7] = {};
  CTzfrWsm t(tiny, sizeof tiny);
  EXPECT_FALSE(t.PutUint(1)) << "a buffer below the header size holds no message";
}

TEST(CTzfrWsm, ConstructionTouchesNothingUntilTheFirstWrite) {
  Bytes buf(64, 0x5A);
  { CTzfrWsm w(buf.data(), buf.size()); }
  EXPECT_EQ(buf, Bytes(64, 0x5A));
}

TEST(CTzfrWsm, WriteThatWouldPassTheEndFailsAndLeavesTheMessageIntact) {
  Bytes buf(8 + 12 + 8 + 8, 0);  // header, one value, one blob of up to 8 bytes
  CTzfrWsm w(buf.data(), buf.size());
  ASSERT_TRUE(w.PutUint(5));
  const Bytes before = buf;
  const unsigned char nine[9] = {1, 2, 3, 4, 5, 6, 7, 8, 9};
  EXPECT_FALSE(w.PutBlob(nine, 9));
  EXPECT_EQ(buf, before) << "a failed write changes no byte";
  EXPECT_TRUE(w.PutBlob(nine, 8)) << "the exact remaining room is usable";
  EXPECT_FALSE(w.PutBlob(nullptr, 0)) << "even an empty blob needs its field header";
  EXPECT_FALSE(w.PutUint(1));

  CTzfrWsm r(buf.data(), buf.size());
  ASSERT_TRUE(r.PrepareReset(1));
  unsigned v = 0;
  ASSERT_TRUE(r.GetUint(&v));
  EXPECT_EQ(v, 5u);
  EXPECT_NE(r.GetBlob(8), nullptr);
  EXPECT_TRUE(r.AtEnd());
}

TEST(CTzfrWsm, HugeBlobLengthDoesNotWrapAround) {
  Bytes buf(64);
  CTzfrWsm w(buf.data(), buf.size());
  const unsigned char x = 0;
  EXPECT_FALSE(w.PutBlob(&x, 0xFFFFFFFFu));
  EXPECT_FALSE(w.PutBlob(&x, 0xFFFFFFFDu));
  EXPECT_EQ(w.MessageSize(), 0u);
}

TEST(CTzfrWsm, NullDataWithLengthIsRefused) {
  Bytes buf(64);
  CTzfrWsm w(buf.data(), buf.size());
  EXPECT_FALSE(w.PutBlob(nullptr, 1));
  EXPECT_TRUE(w.PutBlob(nullptr, 0));
}

TEST(CTzfrWsm, ReadFailsOnKindMismatchAndDoesNotAdvance) {
  Bytes buf(64);
  CTzfrWsm w(buf.data(), buf.size());
  ASSERT_TRUE(w.PutUint(4));
  ASSERT_TRUE(w.PutBlob("abcd", 4));

  CTzfrWsm r(buf.data(), buf.size());
  ASSERT_TRUE(r.PrepareReset(1));
  EXPECT_EQ(r.GetBlob(4), nullptr) << "a value is not a 4-byte blob";
  unsigned v = 0;
  ASSERT_TRUE(r.GetUint(&v));
  EXPECT_EQ(v, 4u);
  EXPECT_FALSE(r.GetUint(&v)) << "a blob is not a value";
  EXPECT_EQ(v, 4u) << "a failed read writes nothing";
  EXPECT_EQ(r.GetBlob(3), nullptr) << "length must match exactly";
  EXPECT_EQ(r.GetBlob(5), nullptr);
  EXPECT_NE(r.GetBlob(4), nullptr);
  EXPECT_FALSE(r.GetUint(nullptr));
}

TEST(CTzfrWsm, ReaderNeverLooksPastTheMessageBody) {
  // A long message followed by a short one: the stale fields of the first
  // are still in the buffer but are not part of the second.
  Bytes buf(128);
  {
    CTzfrWsm w(buf.data(), buf.size());
    ASSERT_TRUE(w.PutUint(1));
    ASSERT_TRUE(w.PutUint(2));
    ASSERT_TRUE(w.PutUint(3));
  }
  {
    CTzfrWsm w(buf.data(), buf.size());
    ASSERT_TRUE(w.PutUint(9));
  }
  CTzfrWsm r(buf.data(), buf.size());
  ASSERT_TRUE(r.PrepareReset(1));
  unsigned v = 0;
  ASSERT_TRUE(r.GetUint(&v));
  EXPECT_EQ(v, 9u);
  EXPECT_TRUE(r.AtEnd());
  EXPECT_FALSE(r.GetUint(&v));
}

TEST(CTzfrWsm, BlobWhosePaddedLengthPassesTheBodyIsRefused) {
  Bytes buf(64);
  CTzfrWsm w(buf.data(), buf.size());
  ASSERT_TRUE(w.PutBlob("abcd", 4));
  // Claim 5 bytes: the padded payload (8) no longer fits in the body (4).
  buf[12] = 5;
  CTzfrWsm r(buf.data(), buf.size());
  ASSERT_TRUE(r.PrepareReset(1));
  EXPECT_EQ(r.GetBlob(5), nullptr);
  // Claim a length near 2^32.
  buf[12] = 0xFF; buf[13] = 0xFF; buf[14] = 0xFF; buf[15] = 0xFF;
  ASSERT_TRUE(r.PrepareReset(1));
  EXPECT_EQ(r.GetBlob(0xFFFFFFFFu), nullptr);
}

TEST(CTzfrWsm, MalformedHeadersAreRefused) {
  Bytes buf(64);
  CTzfrWsm w(buf.data(), buf.size());
  ASSERT_TRUE(w.PutUint(1));
  unsigned v = 0;

  Bytes bad = buf;
  bad[0] = 'X';  // magic
  CTzfrWsm r1(bad.data(), bad.size());
  EXPECT_FALSE(r1.PrepareReset(1));
  EXPECT_FALSE(r1.GetUint(&v));

  bad = buf;
  bad[4] = 13;  // not a multiple of 4
  CTzfrWsm r2(bad.data(), bad.size());
  EXPECT_FALSE(r2.PrepareReset(1));
  EXPECT_FALSE(r2.GetUint(&v));

  bad = buf;
  bad[4] = 60;  // body beyond the buffer (64 - 8 = 56 usable)
  CTzfrWsm r3(bad.data(), bad.size());
  EXPECT_FALSE(r3.PrepareReset(1));

  bad = buf;
  bad[4] = 56;  // body up to the end is fine: the rest are zero bytes
  CTzfrWsm r4(bad.data(), bad.size());
  EXPECT_TRUE(r4.PrepareReset(1));
  EXPECT_TRUE(r4.GetUint(&v));
  EXPECT_FALSE(r4.GetUint(&v)) << "kind 0 is no field";

  bad = buf;
  bad[4] = 4;  // a body shorter than one field header
  CTzfrWsm r5(bad.data(), bad.size());
  EXPECT_TRUE(r5.PrepareReset(1));
  EXPECT_FALSE(r5.GetUint(&v));
}

TEST(CTzfrWsm, PrepareResetModes) {
  Bytes buf(64, 0x77);
  CTzfrWsm w(buf.data(), buf.size());
  EXPECT_FALSE(w.PrepareReset(2));
  EXPECT_FALSE(w.PrepareReset(-1));
  EXPECT_EQ(buf, Bytes(64, 0x77));

  ASSERT_TRUE(w.PrepareReset(0));
  EXPECT_EQ(w.MessageSize(), 8u) << "mode 0 makes an empty message at once";
  EXPECT_EQ(Le32(buf, 4), 0u);
  ASSERT_TRUE(w.PutUint(3));
  ASSERT_TRUE(w.PrepareReset(1));
  EXPECT_FALSE(w.PutUint(4)) << "a reader does not write";
  unsigned v = 0;
  ASSERT_TRUE(w.GetUint(&v));
  EXPECT_EQ(v, 3u);
  ASSERT_TRUE(w.PrepareReset(1));
  ASSERT_TRUE(w.GetUint(&v)) << "mode 1 rewinds to the first field";
  ASSERT_TRUE(w.PrepareReset(0));
  EXPECT_FALSE(w.GetUint(&v)) << "a writer does not read";
  ASSERT_TRUE(w.PrepareReset(1));
  EXPECT_TRUE(w.AtEnd()) << "the message is empty again";
}

TEST(CTzfrWsm, OddSizedAndUnalignedBuffersWork) {
  Bytes raw(8 + 12 + 3 + 1);
  unsigned char* base = raw.data() + 1;  // unaligned start, 23 usable bytes
  CTzfrWsm w(base, raw.size() - 1);
  ASSERT_TRUE(w.PutUint(0xDEADBEEFu));
  EXPECT_FALSE(w.PutBlob(nullptr, 0)) << "the last 3 bytes are not a whole unit";
  CTzfrWsm r(base, raw.size() - 1);
  ASSERT_TRUE(r.PrepareReset(1));
  unsigned v = 0;
  ASSERT_TRUE(r.GetUint(&v));
  EXPECT_EQ(v, 0xDEADBEEFu);
}

TEST(CTzfrWsm, FillsAnEightKilobyteBufferExactly) {
  Bytes buf(8192);
  CTzfrWsm w(buf.data(), buf.size());
  const Bytes data(8192 - 8 - 8, 0x42);
  ASSERT_TRUE(w.PutBlob(data.data(), static_cast<unsigned>(data.size())));
  EXPECT_EQ(w.MessageSize(), 8192u);
  CTzfrWsm w2(buf.data(), buf.size());
  EXPECT_FALSE(w2.PutBlob(data.data(), static_cast<unsigned>(data.size() + 1)));
}

}  // namespace
