#include "tavix/invoke/call_streams.h"

#include <algorithm>
#include <array>

#include "tavix/invoke/connection.h"
#include "tavix/marshal/stream_buffers.h"

namespace TAVIX {

void CallStreams::Release() {
  if (m_lender == nullptr) return;
  m_input.Attach(nullptr);
  m_output.Attach(nullptr);
  m_lender->ReturnBuffers();
  m_lender = nullptr;
}

bool CallStreams::Borrow(Connection& connection) {
  if (!connection.BorrowBuffers(m_buffers)) return false;
  m_lender = &connection;
  return true;
}

void CallStreams::DrainInput(int32_t bodySize) {
  std::array<uint8_t, 4096> sink;  // only written into
  for (int32_t left = bodySize - m_input.Size(); left > 0; left = bodySize - m_input.Size()) {
    m_input.readBlob(sink.data(), std::min<int32_t>(left, static_cast<int32_t>(sink.size())));
  }
}

}  // namespace TAVIX
