// Internal to tvhost: application control's record of launch requests, kept
// with the installed and running state behind tvhost/apps.h.
#pragma once

#include "tvhost/apps.h"

namespace tvhost {
namespace detail {
namespace apps {

void RecordLaunch(tvhost::apps::Launch launch);

} // namespace apps
} // namespace detail
} // namespace tvhost
