/*
 * CTzfrWsm: the message serializer of keystore requests and answers.
 *
 * The client writes a request into the shared buffer with this class, the TA
 * reads it from its private copy of that buffer and writes its answer back
 * into the buffer with the same class. Both sides link the same code, so the
 * byte format below is defined once.
 *
 * Byte format (all integers little-endian, every offset a multiple of 4
 * from the start of the buffer):
 *
 *   offset 0   magic    4 bytes "TZW1"
 *   offset 4   body     u32, the number of bytes of fields that follow the
 *                       header; a multiple of 4, at most capacity - 8
 *   offset 8   fields   one after another, each:
 *                 kind    u32: 1 = unsigned 32-bit value, 2 = blob
 *                 length  u32: 4 for a value, the byte count for a blob
 *                 payload `length` bytes (a value as u32), then zero bytes
 *                         up to the next multiple of 4
 *
 * The header makes a message self-delimiting: a reader never looks past
 * `body`, so bytes that an earlier, longer message left behind in the buffer
 * are never mistaken for fields.
 *
 * States. An object is either writing or reading. A new object is writing a
 * fresh message: its first successful Put starts the message at offset 8 and
 * rewrites the header, so nothing of the buffer is touched until then.
 * PrepareReset(1) switches to reading the message that the buffer holds,
 * from its first field; PrepareReset(0) switches to writing and makes the
 * buffer hold an empty message at once.
 *
 * Guarantees. A write that would pass the end of the buffer fails and writes
 * nothing, so the buffer always holds a well-formed message. A read never
 * passes the end of the message, fails on a kind or length mismatch, and
 * does not move past a field that it failed to read.
 *
 * Threads: an object is used by one thread at a time; it owns nothing and
 * never allocates.
 */
#ifndef TZFR_CTZFRWSM_H
#define TZFR_CTZFRWSM_H

#include <cstddef>
#include <cstdint>
#include <type_traits>
#include <utility>

class CTzfrWsm {
 public:
  /* Size of the message header, and of the header of each field. */
  static constexpr std::size_t kHeaderSize = 8;
  static constexpr std::size_t kFieldHeaderSize = 8;
  /* Field kinds as they appear in the buffer. */
  static constexpr uint32_t kKindUint = 1;
  static constexpr uint32_t kKindBlob = 2;

  /* Client side: serializes into the buffer of a shared-memory block (a
   * TEEC_SharedMemory of the GP Client API).
   * In: shm, borrowed for the object's lifetime; its `buffer` and `size` are
   *     read once, here. A null `shm` or `buffer`, or a size below the
   *     header size, gives an object on which every operation fails.
   * A template over the block's type, read inline at the caller, so the
   * serializer itself needs no TEE library: the keystore TA links the same
   * code without the client API. */
  template <typename SharedMemory,
            typename = std::enable_if_t<
                std::is_convertible_v<decltype(std::declval<SharedMemory&>().buffer), void*> &&
                std::is_convertible_v<decltype(std::declval<SharedMemory&>().size), std::size_t>>>
  explicit CTzfrWsm(SharedMemory* shm)
      : CTzfrWsm(shm != nullptr ? shm->buffer : nullptr, shm != nullptr ? shm->size : 0) {}

  /* TA side (or any plain memory): serializes into buffer[0, size).
   * In: buffer, borrowed for the object's lifetime; size, its length. */
  CTzfrWsm(void* buffer, std::size_t size);

  CTzfrWsm(const CTzfrWsm&) = delete;
  CTzfrWsm& operator=(const CTzfrWsm&) = delete;

  /* Appends an unsigned 32-bit field.
   * Returns true when written; false when the object is reading or the
   * field does not fit (the buffer is then unchanged). */
  [[nodiscard]] bool PutUint(unsigned value);

  /* Appends a blob field of `len` bytes copied from `data`.
   * Returns true when written; false when the object is reading, `data` is
   * null while `len` is non-zero, or the field does not fit (the buffer is
   * then unchanged). A blob of length 0 is a valid field. */
  [[nodiscard]] bool PutBlob(const void* data, unsigned len);

  /* Rewinds the object.
   * In: mode, 1 to read the message that the buffer holds from its first
   *     field, 0 to write a new message (the buffer then holds an empty one).
   * Returns true on success; false for another mode (nothing changes), for
   * a buffer too small to hold a header, or, in mode 1, when the buffer
   * holds no well-formed header (every later read then fails). */
  bool PrepareReset(int mode);

  /* Reads the next field, which must be an unsigned 32-bit value.
   * Out: value, written only on success (must be non-null).
   * Returns true on success; false when the object is writing, no field is
   * left, or the next field is of another kind or length. */
  [[nodiscard]] bool GetUint(unsigned* value);

  /* Reads the next field, which must be a blob of exactly `len` bytes.
   * Returns a pointer to its first byte inside the buffer (valid while the
   * buffer is), or null when the object is writing, no field is left, or the
   * next field is not a blob of `len` bytes. For len 0 the pointer is non-null
   * but must not be dereferenced. */
  [[nodiscard]] const void* GetBlob(unsigned len);

  /* True when the object is reading and every field has been read. */
  bool AtEnd() const;

  /* Bytes that the message occupies in the buffer, header included; 0 while
   * a fresh writer has written nothing. */
  std::size_t MessageSize() const;

 private:
  enum class State { kWriting, kReading };

  bool Append(uint32_t kind, const void* payload, uint32_t len);
  void WriteHeader();
  /* Checks the field at the cursor; on success gives its payload offset. */
  bool PeekField(uint32_t kind, uint32_t len, std::size_t* payload) const;

  unsigned char* buf_;
  std::size_t cap_;      // usable bytes of buf_ (0 when unusable)
  std::size_t cursor_;   // offset of the next field
  std::size_t end_;      // offset just past the last field of the message
  State state_;
  bool started_;         // a writer has written its header
};

#endif  // TZFR_CTZFRWSM_H
