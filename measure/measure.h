// Everything that a host of the measurement library needs.
#pragma once

#include "counters.h"
#include "expectation.h"
#include "finding.h"
#include "observed.h"
#include "options.h"
#include "rules.h"
#include "stream.h"
#include "summary.h"
#include "time_series.h"
