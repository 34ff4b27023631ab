// Everything an application needs from TAVIX: every public header of the
// library (the platform layer's headers come along where they are needed).
#ifndef TAVIX_TAVIX_H_
#define TAVIX_TAVIX_H_

#include "tavix/adapter/object_adapter.h"
#include "tavix/adapter/tcp_connection_factory.h"
#include "tavix/client/proxy_helper.h"
#include "tavix/client/proxy_object.h"
#include "tavix/client/typed_call.h"
#include "tavix/core/errors.h"
#include "tavix/core/format.h"
#include "tavix/core/host_info.h"
#include "tavix/core/inet_addr.h"
#include "tavix/core/library.h"
#include "tavix/core/locks.h"
#include "tavix/core/shared.h"
#include "tavix/core/text.h"
#include "tavix/core/thread.h"
#include "tavix/core/trace_log.h"
#include "tavix/invoke/connection.h"
#include "tavix/invoke/connection_factory.h"
#include "tavix/invoke/messages.h"
#include "tavix/invoke/object.h"
#include "tavix/invoke/object_helper.h"
#include "tavix/invoke/object_host.h"
#include "tavix/marshal/basic_stream.h"
#include "tavix/marshal/blob.h"
#include "tavix/marshal/message_header.h"
#include "tavix/marshal/stream_buffers.h"
#include "tavix/runtime/communicator.h"
#include "tavix/transport/acceptor.h"
#include "tavix/transport/passport.h"
#include "tavix/transport/stream_transceiver_buf.h"
#include "tavix/transport/tcp_acceptor.h"
#include "tavix/transport/tcp_transceiver.h"
#include "tavix/transport/transceiver.h"

#endif  // TAVIX_TAVIX_H_
