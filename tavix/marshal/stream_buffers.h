// The links of a message's stream-buffer chain: a memory buffer that
// gathers small writes into large sends, serves small reads from large
// receives and enforces the message's size, and the end that collects bytes
// into a blob. The end that talks to a transceiver belongs to the transport.
#ifndef TAVIX_MARSHAL_STREAM_BUFFERS_H_
#define TAVIX_MARSHAL_STREAM_BUFFERS_H_

#include <cstdint>
#include <cstdlib>
#include <memory>

#include "tavix/core/shared.h"
#include "tavix/marshal/basic_stream.h"
#include "tavix/marshal/blob.h"

namespace TAVIX {

class StreamMemBuf : public ITavixStreamBuf {
 public:
  // The block size a chain starts with, and the most that is passed to the
  // next link in one piece while writing.
  static constexpr int32_t kBlockSize = 65536;
  static constexpr int32_t kNoLimit = 0x7FFFFFFF;

  StreamMemBuf() = default;
  ~StreamMemBuf() override = default;
  StreamMemBuf(const StreamMemBuf&) = delete;
  StreamMemBuf& operator=(const StreamMemBuf&) = delete;

  int32_t reserve(int32_t bytes) override;
  int32_t sputn(const void* data, int32_t count) override;
  int32_t sgetn(void* data, int32_t count) override;
  int32_t size() override;
  void setLimit(int32_t bytes) override;
  int32_t flush() override;
  void clear() override;
  bool setNext(const SmartPtr<ITavixStreamBuf>& next) override;

  // Ready for a message of `bytes` on `next`, keeping the block: the state
  // of a fresh buffer after reserve, setLimit and setNext. The link below
  // belonged to the last message: it is let go, not cleared.
  void startMessage(int32_t bytes, const SmartPtr<ITavixStreamBuf>& next);

  int32_t capacity() const { return m_capacity; }
  // Bytes held in the block: not yet passed on, or received and not all
  // delivered.
  int32_t fill() const { return m_fill + static_cast<int32_t>(m_putNext - m_putStart); }
  const uint8_t* block() const { return m_block.get(); }

 private:
  enum Mode : int32_t { kUnused = 0, kWriting = 1, kReading = 2 };
  struct FreeDeleter {
    void operator()(void* p) const noexcept { std::free(p); }
  };

  // Counts what a Buffer moved through the fast window on construction and
  // opens the window afresh on destruction; every public call holds one.
  class WindowGuard {
   public:
    explicit WindowGuard(StreamMemBuf& buffer) : m_buffer(buffer) { m_buffer.absorbWindow(); }
    ~WindowGuard() { m_buffer.openWindow(); }
    WindowGuard(const WindowGuard&) = delete;
    WindowGuard& operator=(const WindowGuard&) = delete;

   private:
    StreamMemBuf& m_buffer;
  };
  void absorbWindow();
  void openWindow();

  // reserve and clear without the window's bookkeeping or the next link.
  int32_t growRoom(int32_t bytes);
  void resetCounts();
  int32_t overflow();
  int32_t passThrough(const uint8_t* data, int32_t count);
  int32_t underflow();
  // Keeps the bytes next did not take at the start of the block.
  void dropFront(int32_t taken);
  // Doubles the block; returns the new capacity, 0 when it cannot grow.
  int32_t grow();

  int32_t m_mode = kUnused;
  std::unique_ptr<uint8_t, FreeDeleter> m_block;
  // The room offered, and the bytes really allocated: clear keeps a block
  // of up to kBlockSize for the next message through this buffer.
  int32_t m_capacity = 0;
  int32_t m_allocated = 0;
  int32_t m_position = 0;
  int32_t m_limit = kNoLimit;
  int32_t m_readIndex = 0;
  int32_t m_fill = 0;
  // Where the open window began: what lies between it and the window's
  // next byte was moved without a call and is not yet counted.
  uint8_t* m_putStart = nullptr;
  const uint8_t* m_getStart = nullptr;
  SmartPtr<ITavixStreamBuf> m_next;
};

// The last link of a chain: it holds no bytes, so it has no room, limit or
// count of its own, passes nothing on and links to nothing.
class EndStreamBuf : public ITavixStreamBuf {
 public:
  int32_t reserve(int32_t) override { return 0; }
  int32_t size() override { return 0; }
  void setLimit(int32_t) override {}
  int32_t flush() override { return 0; }
  void clear() override {}
  bool setNext(const SmartPtr<ITavixStreamBuf>&) override { return false; }
};

// The end of a chain for a message nobody receives (the reply of a one-way
// request): it takes every byte and keeps none. It cannot be read from
// (Err::UnsupportedFunction). One stateless instance serves every thread.
class DiscardStreamBuf : public EndStreamBuf {
 public:
  static const SmartPtr<DiscardStreamBuf>& Instance();

  int32_t sputn(const void*, int32_t count) override { return count; }
  int32_t sgetn(void* data, int32_t count) override;
};

// The end of a chain that collects a message into a blob; it cannot be
// read from (Err::UnsupportedFunction).
class StreamBlobBuf : public EndStreamBuf {
 public:
  explicit StreamBlobBuf(const SmartPtr<ITavixBlob>& blob);
  ~StreamBlobBuf() override;
  StreamBlobBuf(const StreamBlobBuf&) = delete;
  StreamBlobBuf& operator=(const StreamBlobBuf&) = delete;

  int32_t sputn(const void* data, int32_t count) override;
  int32_t sgetn(void* data, int32_t count) override;

 private:
  SmartPtr<ITavixBlob> m_blob;
};

// Sets a message's memory buffer up the way every sender and receiver
// does: a new StreamMemBuf attached to the stream, room for the smaller of
// `bytes` and kBlockSize, limit `bytes`, then `next` below it.
SmartPtr<StreamMemBuf> AttachMessageBuffer(Buffer& stream, int32_t bytes,
                                           const SmartPtr<ITavixStreamBuf>& next);
// The same through `buffer`: made when null, otherwise cleared and reused
// with the block it kept, so that the messages of a connection cost no
// allocation of their own.
void AttachMessageBuffer(Buffer& stream, SmartPtr<StreamMemBuf>& buffer, int32_t bytes,
                         const SmartPtr<ITavixStreamBuf>& next);

}  // namespace TAVIX

#endif  // TAVIX_MARSHAL_STREAM_BUFFERS_H_
