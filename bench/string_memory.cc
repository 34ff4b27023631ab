// The memory one wide string costs while it is being read: a message of
// `megabytes` MiB holding one wide string is read by a BasicStream through
// the memory buffer every connection uses, from a source that makes its
// bytes on the fly and so holds none of them. Prints the growth of the
// process's peak resident memory over the read, beside the payload size.
//   string_memory [megabytes]   (default 512)
#include <sys/resource.h>

#include <algorithm>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "tavix/marshal/basic_stream.h"
#include "tavix/marshal/stream_buffers.h"

namespace TAVIX {
namespace {

// The encoded string: the 5-byte length prefix, then code units 'w'.
class GeneratedString : public EndStreamBuf {
 public:
  explicit GeneratedString(int32_t units) : m_units(units) {}
  int32_t sputn(const void*, int32_t) override { return 0; }
  int32_t sgetn(void* data, int32_t count) override {
    auto* out = static_cast<uint8_t*>(data);
    int32_t done = 0;
    for (; done < count && m_prefixSent < 5; ++done, ++m_prefixSent) {
      uint8_t prefix[5] = {0xFF};
      std::memcpy(prefix + 1, &m_units, 4);
      out[done] = prefix[m_prefixSent];
    }
    const int64_t left = int64_t{m_units} * 2 - m_bodySent;
    const auto body = static_cast<int32_t>(std::min<int64_t>(left, count - done));
    for (int32_t i = 0; i < body; ++i) out[done + i] = (m_bodySent + i) % 2 == 0 ? 'w' : 0;
    m_bodySent += body;
    return done + body;
  }

 private:
  int32_t m_units;
  int32_t m_prefixSent = 0;
  int64_t m_bodySent = 0;
};

int64_t PeakKb() {
  rusage usage{};
  getrusage(RUSAGE_SELF, &usage);
  return usage.ru_maxrss;
}

}  // namespace
}  // namespace TAVIX

int main(int argc, char** argv) {
  const int32_t megabytes = argc > 1 ? std::atoi(argv[1]) : 512;
  const int32_t units = megabytes * (1 << 19);
  const int32_t size = 5 + units * 2;
  TAVIX::BasicStream stream;
  TAVIX::AttachMessageBuffer(stream, size, TAVIX::SmartPtr<TAVIX::ITavixStreamBuf>(new TAVIX::GeneratedString(units)));
  const int64_t before = TAVIX::PeakKb();
  std::u16string text;
  stream.read(text);
  const int64_t grown = TAVIX::PeakKb() - before;
  std::printf("wide string of %d MiB read: peak memory grew by %" PRId64 " MiB (%.2f times the payload)\n", megabytes,
              grown / 1024, static_cast<double>(grown) / (megabytes * 1024.0));
  return text.size() == static_cast<size_t>(units) ? 0 : 1;
}
