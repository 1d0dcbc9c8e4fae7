// The companion widget and the network, as the TV reports them.
#include "hosttv/hosttv.h"
#include "hosttv/written.h"
#include "tvhost/network.h"
#include "tvhost/settings.h"

namespace hosttv {

WidgetState Widget()
{
    WidgetState state;
    state.bInstalled = tvhost::apps::IsInstalled(kWidgetApp);
    state.bRunning = state.bInstalled && tvhost::apps::IsRunning(kWidgetApp);
    return state;
}

WidgetChange InstallWidget(bool bInstall)
{
    WidgetChange change;
    change.bChanged = Widget().bInstalled != bInstall;
    if (change.bChanged)
        Written(tvhost::apps::SetInstalled(kWidgetApp, bInstall), "the widget's state");
    tvhost::settings::GetInt(kAppChangeKey, change.appChange);
    change.state = Widget();
    return change;
}

WidgetState LaunchWidget()
{
    if (!Widget().bInstalled)
        throw Error(Error::Kind::kCannot, "the widget is not installed, so it cannot run",
                    Error::Remedy::kInstallWidget);
    Written(tvhost::apps::SetRunning(kWidgetApp, true), "the widget's state");
    return Widget();
}

WidgetState CloseWidget()
{
    Written(tvhost::apps::SetRunning(kWidgetApp, false), "the widget's state");
    return Widget();
}

std::string Network()
{
    return tvhost::network::TypeName(tvhost::network::CurrentType());
}

std::string SetNetwork(const std::string &name)
{
    if (name == "auto")
        Written(tvhost::network::ClearOverride(), "the network type");
    else if (name == "wifi" || name == "ethernet" || name == "none")
        Written(tvhost::network::SetType(tvhost::network::TypeFromName(name)), "the network type");
    else
        throw Error(Error::Kind::kBadRequest,
                    "unknown network type \"" + name + "\"; use wifi, ethernet, none or auto");
    return Network();
}

} // namespace hosttv
