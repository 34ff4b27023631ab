#include "tavix/marshal/stream_buffers.h"

#include <algorithm>
#include <cstring>
#include <new>

#include "tavix/core/errors.h"

namespace TAVIX {

// ---- StreamMemBuf ----

void StreamMemBuf::absorbWindow() {
  const auto put = static_cast<int32_t>(m_putNext - m_putStart);
  if (put > 0 && m_mode == kUnused) m_mode = kWriting;
  m_fill += put;
  const auto got = static_cast<int32_t>(m_getNext - m_getStart);
  m_readIndex += got;
  m_position += put + got;
  m_putStart = m_putNext;
  m_getStart = m_getNext;
}

// Writing, the window is the block's free room; reading, the bytes it
// holds. Neither reaches past the message's limit. An unused buffer holds
// nothing to read, so it offers its room: the first write through the
// window makes it a writing buffer, as a first sputn would.
void StreamMemBuf::openWindow() {
  m_putStart = m_putNext = m_putEnd = nullptr;
  m_getStart = m_getNext = m_getEnd = nullptr;
  if (!m_block) return;
  const int32_t beforeLimit = m_limit - m_position;
  if (m_mode == kWriting || m_mode == kUnused) {
    const int32_t room = std::min(m_capacity - m_fill, beforeLimit);
    if (room <= 0) return;
    m_putStart = m_putNext = m_block.get() + m_fill;
    m_putEnd = m_putNext + room;
  } else if (m_mode == kReading) {
    const int32_t held = std::min(m_fill - m_readIndex, beforeLimit);
    if (held <= 0) return;
    m_getStart = m_getNext = m_block.get() + m_readIndex;
    m_getEnd = m_getNext + held;
  }
}

int32_t StreamMemBuf::size() {
  absorbWindow();
  return m_position;
}

void StreamMemBuf::setLimit(int32_t bytes) {
  const WindowGuard window(*this);
  m_limit = bytes;
}

int32_t StreamMemBuf::reserve(int32_t bytes) {
  const WindowGuard window(*this);
  if (bytes == 0) {
    clear();
    return 0;
  }
  return growRoom(bytes);
}

int32_t StreamMemBuf::growRoom(int32_t bytes) {
  if (bytes <= m_capacity) return 0;
  if (bytes > m_allocated) {
    void* grown = std::realloc(m_block.get(), static_cast<size_t>(bytes));
    if (grown == nullptr) throw std::bad_alloc();
    (void)m_block.release();  // realloc took ownership of the old block
    m_block.reset(static_cast<uint8_t*>(grown));
    m_allocated = bytes;
  }
  m_capacity = bytes;
  return bytes;
}

int32_t StreamMemBuf::sputn(const void* data, int32_t count) {
  const WindowGuard window(*this);
  if (m_mode == kUnused) m_mode = kWriting;
  if (m_mode == kReading) {
    return 0;
  }
  if (m_capacity == 0) reserve(kBlockSize);
  if (m_position >= m_limit) return 0;
  const int32_t n = std::min(count, m_limit - m_position);
  if (n <= 0) return 0;
  const auto* from = static_cast<const uint8_t*>(data);
  int32_t taken = 0;
  bool passOn = static_cast<bool>(m_next);
  while (taken < n) {
    if (passOn && n - taken > m_capacity - m_fill) {
      const int32_t held = m_fill;
      const int32_t r = passThrough(from + taken, n - taken);
      if (r < 0) return r;
      taken += r;
      // A next link that takes nothing gets the bytes block by block.
      if (r == 0 && m_fill == held) passOn = false;
      continue;
    }
    if (m_fill < m_capacity) {
      const int32_t piece = std::min(n - taken, m_capacity - m_fill);
      std::memcpy(m_block.get() + m_fill, from + taken, static_cast<size_t>(piece));
      m_fill += piece;
      m_position += piece;
      taken += piece;
      continue;
    }
    const int32_t r = overflow();
    if (r == 0) break;
    if (r < 0) return r;
  }
  return taken;
}

// More than the block has room for: the held bytes and the new ones go to
// the next link together, in one transfer and without being copied. The
// held bytes it took are dropped. Returns the count of new bytes it took,
// or the next link's error.
int32_t StreamMemBuf::passThrough(const uint8_t* data, int32_t count) {
  const int32_t held = m_fill;
  const int32_t r = m_next->sputPair(m_block.get(), held, data, count);
  if (r <= 0) return r;
  if (r < held) {
    dropFront(r);
    return 0;
  }
  const int32_t own = std::min(r - held, count);
  m_fill = 0;
  m_position += own;
  return own;
}

// The block is full: hand it to the next link, or make it larger when
// there is none or it takes nothing, so no byte is ever dropped.
int32_t StreamMemBuf::overflow() {
  if (!m_next) return grow();
  const int32_t r = m_next->sputn(m_block.get(), m_capacity);
  if (r == 0) return grow();
  if (r < 0) return r;
  if (r < m_capacity) {
    dropFront(r);
  } else {
    m_fill = 0;
  }
  return r;
}

int32_t StreamMemBuf::grow() {
  if (m_capacity == kNoLimit) return 0;
  const int32_t doubled = static_cast<int32_t>(std::min<int64_t>(int64_t{m_capacity} * 2, kNoLimit));
  return reserve(doubled);
}

void StreamMemBuf::dropFront(int32_t taken) {
  std::memmove(m_block.get(), m_block.get() + taken, static_cast<size_t>(m_fill - taken));
  m_fill -= taken;
}

int32_t StreamMemBuf::flush() {
  const WindowGuard window(*this);
  if (m_mode != kWriting) {
    return 0;
  }
  if (!m_next || m_fill == 0) return 0;
  const int32_t r = m_next->sputn(m_block.get(), m_fill);
  if (r <= 0) return r;
  if (r < m_fill) {
    dropFront(r);
  } else {
    m_fill = 0;
  }
  return r;
}

int32_t StreamMemBuf::sgetn(void* data, int32_t count) {
  const WindowGuard window(*this);
  if (m_mode == kUnused) m_mode = kReading;
  if (m_mode == kWriting) {
    return 0;
  }
  if (m_position >= m_limit) return 0;
  const int32_t n = std::min(count, m_limit - m_position);
  if (n < 1) return 0;
  auto* to = static_cast<uint8_t*>(data);
  int32_t delivered = 0;
  while (delivered < n) {
    if (m_readIndex < m_fill) {
      const int32_t piece = std::min(n - delivered, m_fill - m_readIndex);
      std::memcpy(to + delivered, m_block.get() + m_readIndex, static_cast<size_t>(piece));
      m_readIndex += piece;
      m_position += piece;
      delivered += piece;
      continue;
    }
    // A read at least a block long goes straight into the caller's memory.
    const bool through = m_next && m_capacity > 0 && n - delivered >= m_capacity;
    const int32_t r = through ? m_next->sgetn(to + delivered, n - delivered) : underflow();
    if (r == 0) break;
    if (r < 0) return r;
    if (through) {
      const int32_t got = std::min(r, n - delivered);
      m_position += got;
      delivered += got;
    }
  }
  return delivered;
}

// Refills the block, never asking for bytes beyond the end of the message.
int32_t StreamMemBuf::underflow() {
  if (!m_next) return 0;
  m_readIndex = 0;
  m_fill = 0;
  const int32_t want = std::min(m_limit - m_position, m_capacity);
  if (want < 1) return 0;
  const int32_t r = m_next->sgetn(m_block.get(), want);
  if (r > m_capacity) return 0;
  if (r < 1) return r;
  m_fill = r;
  return r;
}

void StreamMemBuf::clear() {
  const WindowGuard window(*this);
  if (m_next) m_next->clear();
  resetCounts();
}

void StreamMemBuf::resetCounts() {
  m_mode = kUnused;
  if (m_allocated > kBlockSize) {
    m_block.reset();
    m_allocated = 0;
  }
  m_capacity = 0;
  m_position = 0;
  m_readIndex = 0;
  m_fill = 0;
  m_limit = kNoLimit;
}

void StreamMemBuf::startMessage(int32_t bytes, const SmartPtr<ITavixStreamBuf>& next) {
  const WindowGuard window(*this);
  resetCounts();
  growRoom(std::min(bytes, kBlockSize));
  m_limit = bytes;
  m_next = next;
}

bool StreamMemBuf::setNext(const SmartPtr<ITavixStreamBuf>& next) {
  m_next = next;
  return true;
}

// ---- StreamBlobBuf ----

StreamBlobBuf::StreamBlobBuf(const SmartPtr<ITavixBlob>& blob) : m_blob(blob) {}

StreamBlobBuf::~StreamBlobBuf() = default;

int32_t StreamBlobBuf::sputn(const void* data, int32_t count) {
  const int32_t r = m_blob->Append(data, count);
  if (r < 0) {
    const uint32_t error = TavixGetLastError();
    TavixThrow(error != 0 ? error : Err::BlobIoError);
  }
  return r;
}

int32_t StreamBlobBuf::sgetn(void*, int32_t) { TavixThrow(Err::UnsupportedFunction); }

// ---- DiscardStreamBuf ----

const SmartPtr<DiscardStreamBuf>& DiscardStreamBuf::Instance() {
  // Never destroyed: a serving thread abandoned at shutdown may still write
  // through it while the process exits.
  static const auto* const sink = new SmartPtr<DiscardStreamBuf>(MakeShared<DiscardStreamBuf>());
  return *sink;
}

int32_t DiscardStreamBuf::sgetn(void*, int32_t) { TavixThrow(Err::UnsupportedFunction); }

// ---- chain set-up ----

SmartPtr<StreamMemBuf> AttachMessageBuffer(Buffer& stream, int32_t bytes,
                                           const SmartPtr<ITavixStreamBuf>& next) {
  SmartPtr<StreamMemBuf> buffer(new StreamMemBuf());
  stream.Attach(buffer);
  buffer->reserve(std::min(bytes, StreamMemBuf::kBlockSize));
  buffer->setLimit(bytes);
  buffer->setNext(next);
  return buffer;
}

void AttachMessageBuffer(Buffer& stream, SmartPtr<StreamMemBuf>& buffer, int32_t bytes,
                         const SmartPtr<ITavixStreamBuf>& next) {
  if (!buffer) {
    buffer = AttachMessageBuffer(stream, bytes, next);
    return;
  }
  buffer->startMessage(bytes, next);
  stream.Attach(buffer);
}

}  // namespace TAVIX
