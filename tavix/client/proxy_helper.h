// One remote call on its way through the client. A proxy method makes a
// ProxyHelper on its stack and follows one pattern:
//
//   ProxyHelper call(this, kOperationName, TwoWay, ProxyHelper::NoBlob,
//                    BasicStream::lengthOf(in1) + BasicStream::lengthOf(in2));
//   try {
//     if (uint32_t r = call.PrepareIPC()) return r;    // connect, begin request
//     call.os()->write(in1); call.os()->write(in2);     // in-parameters, in order
//     if (uint32_t r = call.InvokeIPC()) return r;     // send, read reply head
//     call.is()->read(out1);                            // results, in order
//     return call.FinishIPC();
//   } catch (const TavixException& e) {
//     return call.OnException(e);                      // connection closed
//   }
//
// A one-way call returns 0 right after InvokeIPC. The helper serialises the
// calls of its proxy (the proxy's call lock is held from construction to
// destruction), counts itself among the communicator's calls in progress
// and fills the proxy's TavixPerfmon.
//
// Recording a call instead of sending it (RequestToBlob): construct the
// helper with the blob that is to receive the request; PrepareIPC then
// neither connects nor needs a connection, and InvokeIPC appends the whole
// request message (header, RequestHead, in-parameters) to the blob and
// reads nothing. Constructed with RequestToBlob but without a blob, the
// helper records into a new automatic blob that GetBlob returns. A recorded
// message is sent later with ProxyObject::SendBlobWithoutOutParam
// (BlobAsRequest); a two-way recording carries the request id it was given
// when it was recorded.
#ifndef TAVIX_CLIENT_PROXY_HELPER_H_
#define TAVIX_CLIENT_PROXY_HELPER_H_

#include <cstdint>
#include <string>

#include "tavix/core/errors.h"
#include "tavix/core/shared.h"
#include "tavix/invoke/call_streams.h"
#include "tavix/invoke/messages.h"
#include "tavix/marshal/basic_stream.h"
#include "tavix/marshal/blob.h"
#include "tavix/platform/clock.h"

namespace TAVIX {

class Connection;
class DatagramStreamBuf;
class ProxyObject;
class StreamMemBuf;

class ProxyHelper {
 public:
  // The call modes of messages.h under the names proxies use.
  using BlobType = ProxyBlobType;
  static constexpr BlobType NoBlob = ProxyBlobType::NoBlob;
  static constexpr BlobType RequestToBlob = ProxyBlobType::RequestToBlob;
  static constexpr BlobType BlobAsRequest = ProxyBlobType::BlobAsRequest;

  // `operation` is kept by reference: pass a string that outlives the call.
  // `length` is the summed lengthOf of the in-parameters; for BlobAsRequest
  // the size of the whole message.
  ProxyHelper(ProxyObject* proxy, const std::u16string& operation, OperationMode mode,
              BlobType blobType, int32_t length);
  // RequestToBlob into `blob`: the request is appended to what it holds.
  ProxyHelper(ProxyObject* proxy, const std::u16string& operation, OperationMode mode,
              const SmartPtr<ITavixBlob>& blob, int32_t length);
  virtual ~ProxyHelper();
  ProxyHelper(const ProxyHelper&) = delete;
  ProxyHelper& operator=(const ProxyHelper&) = delete;

  // 0, or the code that ends the call: makes the connection ready and
  // writes the message header and RequestHead.
  uint32_t PrepareIPC();
  // Sends the request and, for a two-way call, waits for the reply header
  // with the proxy's time-out and reads the ReplyHead. 0, the servant's
  // status, or an error code.
  uint32_t InvokeIPC();
  // Ends a call whose results were read; always 0.
  uint32_t FinishIPC();
  // Closes the connection (when the call had one) and returns e's code.
  uint32_t OnException(const TavixException& e);

  BasicStream* is() { return &m_streams.Input(); }
  BasicStream* os() { return &m_streams.Output(); }
  // Where a RequestToBlob call records its request.
  const SmartPtr<ITavixBlob>& GetBlob() const { return m_blob; }

 private:
  // The end of the request's chain on the connection: the transceiver
  // itself, or for datagrams a buffer that sends the message whole.
  SmartPtr<ITavixStreamBuf> ConnectionLink();
  // Waits with the proxy's time-out for the reply datagram of this call,
  // dropping datagrams that are not it (late replies of earlier calls), and
  // reads its ReplyHead.
  uint32_t ReceiveDatagramReply();
  // Reads the ReplyHead of a reply of `size` bytes whose body the input
  // stream reads next; returns its status.
  uint32_t ReadReplyHead(int32_t size, ReplyHead& reply);

  ProxyObject* m_proxy;
  const std::u16string* m_operation;
  OperationMode m_mode;
  BlobType m_blobType;
  int32_t m_length;
  int32_t m_replyBodySize = 0;
  SmartPtr<Connection> m_connection;
  int32_t m_requestId = 0;
  SmartPtr<ITavixStreamBuf> m_downstream;
  SmartPtr<DatagramStreamBuf> m_datagram;  // set on datagram connections
  FILETIME m_startTime = 0;
  SmartPtr<ITavixBlob> m_blob;
  // Goes first, while the chain ends above are still held.
  CallStreams m_streams;
};

}  // namespace TAVIX

#endif  // TAVIX_CLIENT_PROXY_HELPER_H_
