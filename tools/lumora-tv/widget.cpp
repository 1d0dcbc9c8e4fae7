// widget, network.
#include <cstdio>

#include "commands.h"

namespace lumoratv {

std::string WidgetText(const hosttv::WidgetState &state)
{
    if (!state.bInstalled)
        return std::string(hosttv::kWidgetApp) + " is not installed";
    return std::string(hosttv::kWidgetApp) + " is installed, " + (state.bRunning ? "running" : "not running");
}

int Widget(const Args &args)
{
    const std::string word = args.empty() ? "" : args[0];
    if (word == "install" || word == "uninstall") {
        const hosttv::WidgetChange change = hosttv::InstallWidget(word == "install");
        if (change.bChanged)
            std::printf("%s (%s is now %d)\n", WidgetText(change.state).c_str(), hosttv::kAppChangeKey,
                        change.appChange);
        else
            std::printf("%s (nothing changed)\n", WidgetText(change.state).c_str());
    } else if (word == "launch") {
        std::printf("%s\n", WidgetText(hosttv::LaunchWidget()).c_str());
    } else if (word == "close") {
        std::printf("%s\n", WidgetText(hosttv::CloseWidget()).c_str());
    } else if (word.empty()) {
        std::printf("%s\n", WidgetText(hosttv::Widget()).c_str());
    } else {
        throw UsageError("unknown widget action \"" + word + "\"; use install, uninstall, launch or close");
    }
    return kDone;
}

int Network(const Args &args)
{
    if (args.empty()) {
        std::printf("network: %s\n", hosttv::Network().c_str());
        return kDone;
    }
    const std::string type = hosttv::SetNetwork(args[0]);
    std::printf("network: %s%s\n", type.c_str(), args[0] == "auto" ? " (following this machine's default route)" : "");
    return kDone;
}

} // namespace lumoratv
