// Application control on the host: a launch request for an installed
// application marks it running and is recorded with what it carried.
#include <app_control.h>

#include <new>
#include <string>
#include <utility>
#include <vector>

#include "apps_registry.h"
#include "tvhost/faults.h"

struct app_control_s {
    std::string operation;
    std::string appId;
    std::vector<std::pair<std::string, std::string>> extraData;
};

using namespace tvhost::detail::apps;

extern "C" int app_control_create(app_control_h *app_control)
{
    int nFault;
    if (tvhost::faults::Take("app_control_create", nFault))
        return nFault;
    if (!app_control)
        return APP_CONTROL_ERROR_INVALID_PARAMETER;
    *app_control = new (std::nothrow) app_control_s;
    return *app_control ? APP_CONTROL_ERROR_NONE : APP_CONTROL_ERROR_OUT_OF_MEMORY;
}

extern "C" int app_control_destroy(app_control_h app_control)
{
    int nFault;
    if (tvhost::faults::Take("app_control_destroy", nFault))
        return nFault;
    if (!app_control)
        return APP_CONTROL_ERROR_INVALID_PARAMETER;
    delete app_control;
    return APP_CONTROL_ERROR_NONE;
}

extern "C" int app_control_set_operation(app_control_h app_control, const char *operation)
{
    int nFault;
    if (tvhost::faults::Take("app_control_set_operation", nFault))
        return nFault;
    if (!app_control)
        return APP_CONTROL_ERROR_INVALID_PARAMETER;
    app_control->operation = operation ? operation : "";
    return APP_CONTROL_ERROR_NONE;
}

extern "C" int app_control_set_app_id(app_control_h app_control, const char *app_id)
{
    int nFault;
    if (tvhost::faults::Take("app_control_set_app_id", nFault))
        return nFault;
    if (!app_control)
        return APP_CONTROL_ERROR_INVALID_PARAMETER;
    app_control->appId = app_id ? app_id : "";
    return APP_CONTROL_ERROR_NONE;
}

extern "C" int app_control_add_extra_data(app_control_h app_control, const char *key, const char *value)
{
    int nFault;
    if (tvhost::faults::Take("app_control_add_extra_data", nFault))
        return nFault;
    if (!app_control || !key || !*key || !value)
        return APP_CONTROL_ERROR_INVALID_PARAMETER;
    for (auto &kv : app_control->extraData) {
        if (kv.first == key) {
            kv.second = value;
            return APP_CONTROL_ERROR_NONE;
        }
    }
    app_control->extraData.emplace_back(key, value);
    return APP_CONTROL_ERROR_NONE;
}

// The host's applications never answer a request, so callback is never called.
extern "C" int app_control_send_launch_request(app_control_h app_control, app_control_reply_cb callback,
                                               void *user_data)
{
    (void)callback;
    (void)user_data;
    int nFault;
    if (tvhost::faults::Take("app_control_send_launch_request", nFault))
        return nFault;
    if (!app_control)
        return APP_CONTROL_ERROR_INVALID_PARAMETER;
    int result = APP_CONTROL_ERROR_NONE;
    if (app_control->appId.empty())
        result = APP_CONTROL_ERROR_INVALID_PARAMETER;
    else if (!tvhost::apps::IsInstalled(app_control->appId))
        result = APP_CONTROL_ERROR_APP_NOT_FOUND;
    if (result == APP_CONTROL_ERROR_NONE)
        tvhost::apps::SetRunning(app_control->appId, true);
    tvhost::apps::Launch launch;
    launch.appId = app_control->appId;
    launch.operation = app_control->operation;
    launch.extraData = app_control->extraData;
    launch.result = result;
    RecordLaunch(std::move(launch));
    return result;
}
