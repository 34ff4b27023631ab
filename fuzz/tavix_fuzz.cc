// One libFuzzer target for everything that reads bytes from a peer. The
// first input byte picks the reader; the rest is what the peer sent:
//   0  a message header: decode and check
//   1  BasicStream reads of every kind, in an order the input picks
//   2  request and reply heads
//   3  the whole server path: a connection's serving loop over an in-memory
//      transceiver, with a servant that takes strings, sequences and blobs
// Every reader must either succeed or raise TavixException; the sanitizers
// catch everything else.
#include <algorithm>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "tavix/adapter/object_adapter.h"
#include "tavix/invoke/operation.h"
#include "tavix/core/errors.h"
#include "tavix/invoke/connection.h"
#include "tavix/invoke/connection_factory.h"
#include "tavix/invoke/messages.h"
#include "tavix/marshal/basic_stream.h"
#include "tavix/marshal/message_header.h"
#include "tavix/marshal/stream_buffers.h"
#include "tavix/transport/transceiver.h"

namespace TAVIX {
namespace {

// Bytes of the input as the far end of a chain.
class InputBuf : public EndStreamBuf {
 public:
  InputBuf(const uint8_t* data, size_t size) : m_data(data), m_size(size) {}
  int32_t sputn(const void*, int32_t count) override { return count; }
  int32_t sgetn(void* data, int32_t count) override {
    const auto n = static_cast<int32_t>(std::min<size_t>(static_cast<size_t>(count), m_size - m_at));
    std::memcpy(data, m_data + m_at, static_cast<size_t>(n));
    m_at += static_cast<size_t>(n);
    return n;
  }

 private:
  const uint8_t* m_data;
  size_t m_size;
  size_t m_at = 0;
};

// A client connection made of the input: what it reads is the input, what
// the server sends is dropped, and its end is the end of the input.
class InputTransceiver : public ITransceiver {
 public:
  InputTransceiver(const uint8_t* data, size_t size) : m_input(data, data + size) {}
  int32_t GetHandle() const override { return m_open ? 0 : INVALID_SOCKET; }
  int32_t Open() override { return 0; }
  void Close() override { m_open = false; }
  bool IsOpen() const override { return m_open; }
  int32_t WaitForRecv(uint32_t) override { return m_open ? 1 : -3; }
  bool IsWaiting() const override { return false; }
  int32_t Recv(void* buffer, int32_t length) override { return Recvn(buffer, std::min(length, Left())); }
  int32_t Recvn(void* buffer, int32_t length) override {
    if (!m_open) return -3;
    if (length > Left()) return 0;
    std::memcpy(buffer, m_input.data() + m_at, static_cast<size_t>(length));
    m_at += static_cast<size_t>(length);
    return length;
  }
  int32_t Send(const void*, int32_t length) override { return m_open ? length : -3; }
  bool GetPeer(std::u16string&, uint16_t&) const override { return false; }
  PassportType Type() const override { return PASSPORT_TCP; }
  int32_t MaxMessageSize() const override { return 0; }
  bool IsBroadcast() const override { return false; }

 private:
  int32_t Left() const { return static_cast<int32_t>(m_input.size() - m_at); }
  std::vector<uint8_t> m_input;
  size_t m_at = 0;
  bool m_open = true;
};

class Factory : public IConnectionFactory {
 public:
  explicit Factory(const SmartPtr<IObjectHost>& host) : m_host(host) {}
  bool Activate() override { return true; }
  bool IsActive() const override { return true; }
  void Destroy() override {}
  bool ConnectionClosed(const SmartPtr<Connection>&, TavixDisconnectReason) override {
    ended = true;
    return true;
  }
  void WaitUntilDestroy(uint64_t) override {}
  const SmartPtr<IPassport>& GetPassport() const override { return m_passport; }
  const SmartPtr<IObjectHost>& GetHost() const override { return m_host; }

 private:
  SmartPtr<IPassport> m_passport;
  SmartPtr<IObjectHost> m_host;

 public:
  std::atomic<bool> ended{false};
};

using TakeOp = Operation<u"Take", In<std::u16string, std::vector<double>, SmartPtr<ITavixBlob>>, Out<std::string>>;
using NoteOp = OneWayOperation<u"Note", In<std::vector<std::u16string>, int64_t>>;

class Servant : public Object {
 public:
  uint32_t Take(const std::u16string& text, const std::vector<double>& values, const SmartPtr<ITavixBlob>& blob,
                std::string& out, const Context&) {
    out.assign(std::min<size_t>(text.size() + values.size() + (blob ? blob->Size() : 0), 4096), 'r');
    return 0;
  }
  uint32_t Note(const std::vector<std::u16string>&, const int64_t&, const Context&) { return 0; }
  void Dispatch(ObjectHelper& request) override {
    ServantTable<Servant, Entry<NoteOp, &Servant::Note>, Entry<TakeOp, &Servant::Take>>::Dispatch(*this, request);
  }
};

void ReadValues(const uint8_t* data, size_t size) {
  if (size == 0) return;
  BasicStream stream;
  AttachMessageBuffer(stream, static_cast<int32_t>(std::min<size_t>(size - 1, 1 << 20)),
                      SmartPtr<ITavixStreamBuf>(new InputBuf(data + 1, size - 1)));
  for (uint8_t pick = data[0];; pick = static_cast<uint8_t>(pick * 7 + 3)) {
    switch (pick % 12) {
      case 0: { bool v{}; stream.read(v); break; }
      case 1: { int16_t v{}; stream.read(v); break; }
      case 2: { int32_t v{}; stream.read(v); break; }
      case 3: { int64_t v{}; stream.read(v); break; }
      case 4: { double v{}; stream.read(v); break; }
      case 5: { std::string v; stream.read(v); break; }
      case 6: { std::u16string v; stream.read(v); break; }
      case 7: { SmartPtr<ITavixBlob> v; stream.read(v); break; }
      case 8: { std::vector<int32_t> v; stream.read(v); break; }
      case 9: { std::vector<std::u16string> v; stream.read(v); break; }
      case 10: { std::vector<bool> v; stream.read(v); break; }
      default: { std::vector<SmartPtr<ITavixBlob>> v; stream.read(v); break; }
    }
  }
}

void ReadHeads(const uint8_t* data, size_t size) {
  BasicStream stream;
  AttachMessageBuffer(stream, static_cast<int32_t>(std::min<size_t>(size, 1 << 20)),
                      SmartPtr<ITavixStreamBuf>(new InputBuf(data, size)));
  RequestHead request;
  request.read(stream);
  ReplyHead reply;
  reply.read(stream);
}

void Serve(const uint8_t* data, size_t size) {
  SmartPtr<ObjectAdapter> adapter = MakeShared<ObjectAdapter>();
  adapter->AddServant(MakeShared<Servant>(), std::u16string(u"A"));
  adapter->Activate();
  const SmartPtr<Factory> factory = MakeShared<Factory>(adapter);
  SmartPtr<Connection> connection = MakeShared<Connection>(SmartPtr<IConnectionFactory>(factory));
  connection->SetTransceiver(SmartPtr<ITransceiver>(new InputTransceiver(data, size)));
  if (!connection->Activate()) return;
  // The loop ends by itself at the end of the input.
  while (!factory->ended) std::this_thread::yield();
  connection->WaitUntilDestroy();
}

}  // namespace
}  // namespace TAVIX

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size == 0) return 0;
  try {
    switch (data[0] % 4) {
      case 0:
        if (size >= 1 + TAVIX::HEADER_SIZE) {
          TAVIX::MsgHeaderData header;
          header.Decode(data + 1);
          header.Check();
        }
        break;
      case 1:
        TAVIX::ReadValues(data + 1, size - 1);
        break;
      case 2:
        TAVIX::ReadHeads(data + 1, size - 1);
        break;
      default:
        TAVIX::Serve(data + 1, size - 1);
        break;
    }
  } catch (const TAVIX::TavixException&) {
  }
  return 0;
}
