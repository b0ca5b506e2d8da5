#pragma once

// The connection layer: a readiness poller and Unix-domain stream connections.

#include "utils/ConnectionBase.h"
#include "utils/ConnectionUDS.h"
#include "utils/Poller.h"
