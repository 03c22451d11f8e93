// Helpers of the time tests: the shared text helpers and the UTC zone.
#pragma once

#include <quenlib/stimezone.h>

#include "text/text_support.h"

namespace quentest {

inline QuenLibA500::STimeZone const& Utc() { return QuenLibA500::STimeZone::TZ_UTC(); }

}  // namespace quentest
