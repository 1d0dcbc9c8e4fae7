// The web-application service on the host: answers from the application
// registry under the TV root unless a test queued a fault.
#include <was.h>

#include <cstring>

#include "tvhost/apps.h"
#include "tvhost/faults.h"

static_assert(sizeof(was_app_info_t) == 2288, "callers provide exactly this much room");

extern "C" int was_get_app_info(const char *app_id, was_app_info_t *info)
{
    int result = WAS_ERROR_NONE;
    if (tvhost::faults::Take("was_get_app_info", result))
        return result;
    if (!app_id || !info)
        return WAS_ERROR_INVALID_PARAMETER;
    if (!tvhost::apps::IsInstalled(app_id))
        return WAS_ERROR_NOT_INSTALLED;
    std::memset(info, 0, sizeof *info);
    std::strncpy(reinterpret_cast<char *>(info->opaque), app_id, sizeof info->opaque - 1);
    return WAS_ERROR_NONE;
}

extern "C" int was_get_app_status(const char *app_id, int *status)
{
    tvhost::faults::Answer answer;
    if (tvhost::faults::Take("was_get_app_status", answer)) {
        if (status)
            *status = answer.value;
        return answer.result;
    }
    if (!app_id || !status)
        return WAS_ERROR_INVALID_PARAMETER;
    *status = tvhost::apps::IsRunning(app_id) ? 1 : 0;
    return WAS_ERROR_NONE;
}
