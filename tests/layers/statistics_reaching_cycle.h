// Read by the layer check's test, never compiled: a statistics header that
// reaches into its sibling, the cycle.
#pragma once
#include "state/shared_state.h"
#include "cycle/steering.h"
