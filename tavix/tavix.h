// The public interface of TAVIX: everything an application uses, and
// nothing else. Each header below is public; the headers they include in
// turn are installed under include/tavix/internal/ and may change between
// versions.
#ifndef TAVIX_TAVIX_H_
#define TAVIX_TAVIX_H_

#include "tavix/adapter/object_adapter.h"
#include "tavix/client/proxy_object.h"
#include "tavix/client/typed_call.h"
#include "tavix/core/errors.h"
#include "tavix/core/peer_identity.h"
#include "tavix/core/shared.h"
#include "tavix/core/text.h"
#include "tavix/diag/log_folder.h"
#include "tavix/invoke/messages.h"
#include "tavix/invoke/object.h"
#include "tavix/invoke/operation.h"
#include "tavix/marshal/blob.h"
#include "tavix/marshal/blob_bytes.h"
#include "tavix/marshal/codec.h"
#include "tavix/runtime/communicator.h"
#include "tavix/transport/tls_settings.h"

#endif  // TAVIX_TAVIX_H_
