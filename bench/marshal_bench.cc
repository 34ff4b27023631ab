// Marshalling throughput through the chain a message really takes
// (BasicStream -> StreamMemBuf of 64 KiB -> end link), each beside a plain
// memcpy of the same number of bytes, all reported as bytes per second.
#include <benchmark/benchmark.h>

#include <cstring>
#include <string>
#include <vector>

#include "tavix/marshal/basic_stream.h"
#include "tavix/marshal/blob.h"
#include "tavix/marshal/stream_buffers.h"

namespace TAVIX {
namespace {

// The sending end: copies into a preallocated area, as a socket send copies
// into the kernel.
class CopySink : public EndStreamBuf {
 public:
  explicit CopySink(size_t bytes) : m_area(bytes) {}
  void Rewind() { m_at = 0; }
  const std::vector<uint8_t>& Area() const { return m_area; }

  int32_t sputn(const void* data, int32_t count) override {
    std::memcpy(m_area.data() + m_at, data, static_cast<size_t>(count));
    m_at += static_cast<size_t>(count);
    return count;
  }
  int32_t sgetn(void*, int32_t) override { return 0; }

 private:
  std::vector<uint8_t> m_area;
  size_t m_at = 0;
};

// The receiving end: serves a message that has already arrived.
class CopySource : public EndStreamBuf {
 public:
  explicit CopySource(const std::vector<uint8_t>& bytes) : m_bytes(bytes) {}
  void Rewind() { m_at = 0; }

  int32_t sputn(const void*, int32_t) override { return 0; }
  int32_t sgetn(void* data, int32_t count) override {
    const size_t n = std::min(static_cast<size_t>(count), m_bytes.size() - m_at);
    std::memcpy(data, m_bytes.data() + m_at, n);
    m_at += n;
    return static_cast<int32_t>(n);
  }

 private:
  const std::vector<uint8_t>& m_bytes;
  size_t m_at = 0;
};

const std::vector<int32_t>& Ints() {
  static const std::vector<int32_t> values = [] {
    std::vector<int32_t> v(262144);  // 1 MiB
    for (size_t i = 0; i < v.size(); ++i) v[i] = static_cast<int32_t>(i * 2654435761u);
    return v;
  }();
  return values;
}

const std::vector<std::u16string>& Strings() {
  static const std::vector<std::u16string> values = [] {
    std::vector<std::u16string> v;
    for (int i = 0; i < 10000; ++i) {
      const std::string n = std::to_string(i);
      v.push_back(u"item-" + std::u16string(n.begin(), n.end()));
    }
    return v;
  }();
  return values;
}

const SmartPtr<ITavixBlob>& Blob() {
  static const SmartPtr<ITavixBlob> blob = [] {
    SmartPtr<ITavixBlob> b = CreateTavixMemBlob();
    std::vector<uint8_t> piece(1 << 20);
    for (size_t i = 0; i < piece.size(); ++i) piece[i] = static_cast<uint8_t>(i * 7);
    for (int i = 0; i < 16; ++i) b->Append(piece.data(), static_cast<int32_t>(piece.size()));
    return b;
  }();
  return blob;
}

template <class T>
std::vector<uint8_t> Encoded(const T& value) {
  const int32_t total = BasicStream::lengthOf(value);
  SmartPtr<CopySink> sink(new CopySink(static_cast<size_t>(total)));
  BasicStream s;
  AttachMessageBuffer(s, total, sink);
  s.write(value);
  s.Flush();
  return sink->Area();
}

template <class T>
void Marshal(benchmark::State& state, const T& value) {
  const int32_t total = BasicStream::lengthOf(value);
  SmartPtr<CopySink> sink(new CopySink(static_cast<size_t>(total)));
  for (auto _ : state) {
    BasicStream s;
    sink->Rewind();
    AttachMessageBuffer(s, total, sink);
    s.write(value);
    s.Flush();
    s.Clear();
    benchmark::DoNotOptimize(sink->Area().data());
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * total);
}

template <class T>
void Unmarshal(benchmark::State& state, const T& value, T target) {
  const std::vector<uint8_t> wire = Encoded(value);
  const auto total = static_cast<int32_t>(wire.size());
  SmartPtr<CopySource> source(new CopySource(wire));
  for (auto _ : state) {
    BasicStream s;
    source->Rewind();
    AttachMessageBuffer(s, total, source);
    s.read(target);
    s.Clear();
    benchmark::DoNotOptimize(&target);
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * total);
}

void Memcpy(benchmark::State& state, int32_t bytes) {
  std::vector<uint8_t> from(static_cast<size_t>(bytes), 0x5A);
  std::vector<uint8_t> to(static_cast<size_t>(bytes));
  for (auto _ : state) {
    std::memcpy(to.data(), from.data(), to.size());
    benchmark::ClobberMemory();
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * bytes);
}

void BM_Int32Vector1MiB_Marshal(benchmark::State& state) { Marshal(state, Ints()); }
void BM_Int32Vector1MiB_Unmarshal(benchmark::State& state) { Unmarshal(state, Ints(), {}); }
void BM_Int32Vector1MiB_Memcpy(benchmark::State& state) { Memcpy(state, BasicStream::lengthOf(Ints())); }

void BM_WideStrings10k_Marshal(benchmark::State& state) { Marshal(state, Strings()); }
void BM_WideStrings10k_Unmarshal(benchmark::State& state) { Unmarshal(state, Strings(), {}); }
void BM_WideStrings10k_Memcpy(benchmark::State& state) { Memcpy(state, BasicStream::lengthOf(Strings())); }

void BM_Blob16MiB_Marshal(benchmark::State& state) { Marshal(state, Blob()); }
// Reading into a memory blob that is held reuses it in place.
void BM_Blob16MiB_UnmarshalToMemory(benchmark::State& state) { Unmarshal(state, Blob(), CreateTavixMemBlob()); }
// Reading into a temporary file blob, as a blob of this size arrives when
// the target is empty.
void BM_Blob16MiB_UnmarshalToFile(benchmark::State& state) { Unmarshal(state, Blob(), CreateTavixFileBlob()); }
void BM_Blob16MiB_Memcpy(benchmark::State& state) { Memcpy(state, BasicStream::lengthOf(Blob())); }

BENCHMARK(BM_Int32Vector1MiB_Marshal);
BENCHMARK(BM_Int32Vector1MiB_Unmarshal);
BENCHMARK(BM_Int32Vector1MiB_Memcpy);
BENCHMARK(BM_WideStrings10k_Marshal);
BENCHMARK(BM_WideStrings10k_Unmarshal);
BENCHMARK(BM_WideStrings10k_Memcpy);
BENCHMARK(BM_Blob16MiB_Marshal);
BENCHMARK(BM_Blob16MiB_UnmarshalToMemory);
BENCHMARK(BM_Blob16MiB_UnmarshalToFile);
BENCHMARK(BM_Blob16MiB_Memcpy);

}  // namespace
}  // namespace TAVIX

BENCHMARK_MAIN();
