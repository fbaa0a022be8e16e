// The umbrella header: includes every public header of the library.
#ifndef QUARNEL_QUARNEL_H_
#define QUARNEL_QUARNEL_H_

#include "quarnel/foundation/debuglog.h"
#include "quarnel/foundation/errors.h"
#include "quarnel/foundation/export.h"
#include "quarnel/foundation/memutil.h"
#include "quarnel/platform/debugout.h"
#include "quarnel/platform/heap.h"
#include "quarnel/resources/resmgr.h"
#include "quarnel/text/args.h"
#include "quarnel/text/tstring.h"

#endif  // QUARNEL_QUARNEL_H_
