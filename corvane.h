// corvane: everything a host needs, in one include.
#pragma once

#include "zullog/zullog.h"
#include "utils/error.h"
#include "utils/files.h"
#include "utils/log.h"
#include "utils/noncopyable.h"
#include "utils/thread_mutex.h"
#include "utils/time.h"
