// get, set.
#include <cstdio>

#include "commands.h"

namespace lumoratv {

namespace {

void PrintKey(const hosttv::SettingKey &key, bool bFailIfMissing)
{
    const std::optional<std::string> value = hosttv::GetSetting(key);
    if (value)
        std::printf("%s = %s\n", key.name, value->c_str());
    else if (bFailIfMissing)
        throw hosttv::Error(hosttv::Error::Kind::kCannot,
                            std::string(key.name) + " is not set; set it with: lumora-tv set " + key.name + " VALUE");
    else
        std::printf("%s is not set\n", key.name);
}

} // namespace

void Get(const Args &args)
{
    if (!args.empty()) {
        PrintKey(hosttv::FindSettingKey(args[0]), true);
        return;
    }
    for (const hosttv::SettingKey &key : hosttv::SettingKeys())
        PrintKey(key, false);
}

void Set(const Args &args)
{
    const hosttv::SettingKey &key = hosttv::FindSettingKey(args[0]);
    hosttv::SetSetting(key, args[1]);
    PrintKey(key, true);
}

} // namespace lumoratv
