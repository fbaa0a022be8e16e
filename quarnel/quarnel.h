// The umbrella header: includes every public header of the library.
#ifndef QUARNEL_QUARNEL_H_
#define QUARNEL_QUARNEL_H_

#include "quarnel/foundation/alert.h"
#include "quarnel/foundation/debuglog.h"
#include "quarnel/foundation/error.h"
#include "quarnel/foundation/errors.h"
#include "quarnel/foundation/export.h"
#include "quarnel/foundation/marshall.h"
#include "quarnel/foundation/memutil.h"
#include "quarnel/platform/codepage.h"
#include "quarnel/platform/debugger.h"
#include "quarnel/platform/debugout.h"
#include "quarnel/platform/env.h"
#include "quarnel/platform/faults.h"
#include "quarnel/platform/heap.h"
#include "quarnel/platform/lasterror.h"
#include "quarnel/platform/locale.h"
#include "quarnel/platform/msgbox.h"
#include "quarnel/platform/ptrcheck.h"
#include "quarnel/platform/threadid.h"
#include "quarnel/platform/vmem.h"
#include "quarnel/resources/resmgr.h"
#include "quarnel/text/args.h"
#include "quarnel/text/sprintf.h"
#include "quarnel/text/token.h"
#include "quarnel/text/tstring.h"

#endif  // QUARNEL_QUARNEL_H_
