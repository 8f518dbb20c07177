// What channels get of their inputs.
#pragma once

#include "inputs/consumer.h"

namespace quarn::live {

using inputs::Arrival;
using inputs::Consumer;

} // namespace quarn::live
