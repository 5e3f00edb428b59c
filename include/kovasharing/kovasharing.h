// Umbrella header: everything the library exports.
#ifndef KOVASHARING_KOVASHARING_H
#define KOVASHARING_KOVASHARING_H

#include "base_db.h"
#include "condition.h"
#include "constants.h"
#include "entry.h"
#include "entry_db.h"
#include "export.h"
#include "object.h"
#include "object_db.h"
#include "result.h"
#include "session.h"
#include "session_db.h"
#include "sharing_db.h"
#include "sharinglogin.h"
#include "token.h"
#include "token_db.h"
#include "utils.h"

#endif
