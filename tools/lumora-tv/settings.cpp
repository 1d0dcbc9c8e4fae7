// get, set.
#include <cstdio>

#include "commands.h"

namespace lumoratv {

int Get(const Args &arguments)
{
    Args args = arguments;
    const bool bJson = TakeFlag(args, "--json");
    if (args.size() > 1)
        throw BadArguments{};
    std::vector<const hosttv::SettingKey *> keys;
    if (!args.empty())
        keys.push_back(&hosttv::FindSettingKey(args[0]));
    else
        for (const hosttv::SettingKey &key : hosttv::SettingKeys())
            keys.push_back(&key);
    if (bJson) {
        std::printf("%s\n", hosttv::Json(keys).c_str());
        return kDone;
    }
    // One key: its value alone, for $(lumora-tv get KEY).
    if (!args.empty()) {
        const std::optional<std::string> value = hosttv::GetSetting(*keys[0]);
        if (!value)
            throw hosttv::Error(hosttv::Error::Kind::kCannot, std::string(keys[0]->name) +
                                                                  " is not set; set it with: lumora-tv set " +
                                                                  keys[0]->name + " VALUE");
        std::printf("%s\n", value->c_str());
        return kDone;
    }
    for (const hosttv::SettingKey *key : keys) {
        const std::optional<std::string> value = hosttv::GetSetting(*key);
        if (value)
            std::printf("%s = %s\n", key->name, value->c_str());
        else
            std::printf("%s is not set\n", key->name);
    }
    return kDone;
}

int Set(const Args &arguments)
{
    Args args = arguments;
    const bool bForce = TakeFlag(args, "--force");
    if (args.size() != 2)
        throw BadArguments{};
    const hosttv::SettingKey &key = hosttv::FindSettingKey(args[0]);
    hosttv::SetSetting(key, args[1], bForce);
    std::printf("%s = %s\n", key.name, hosttv::GetSetting(key).value_or("(not set)").c_str());
    return kDone;
}

} // namespace lumoratv
