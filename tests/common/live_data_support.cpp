// The helpers are inline; this file keeps the header compiled once on its own.
#include "live_data_support.h"
