// Everything an application needs from TAVIX.
#ifndef TAVIX_TAVIX_H_
#define TAVIX_TAVIX_H_

#include "tavix/core/errors.h"
#include "tavix/core/format.h"
#include "tavix/core/host_info.h"
#include "tavix/core/inet_addr.h"
#include "tavix/core/locks.h"
#include "tavix/core/shared.h"
#include "tavix/core/text.h"
#include "tavix/core/thread.h"
#include "tavix/core/trace_log.h"
#include "tavix/marshal/message_header.h"

#endif  // TAVIX_TAVIX_H_
