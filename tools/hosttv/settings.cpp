// The TV's settings keys that the service reads.
#include "hosttv/hosttv.h"
#include "tvhost/parse.h"
#include "tvhost/settings.h"

namespace hosttv {

int ReadNumber(const std::string &text, const std::string &what)
{
    int value = 0;
    if (!tvhost::ParseInt(text, value))
        throw Error(Error::Kind::kBadRequest,
                    "bad number \"" + text + "\" for " + what + ": give a whole number such as 2");
    return value;
}

const std::vector<SettingKey> &SettingKeys()
{
    static const std::vector<SettingKey> keys = {
        {kLanguageKey, false, "text, the TV's display language, e.g. ko_KR.UTF-8"},
        {kAppChangeKey, true, "number, bumped whenever an application is installed or removed"},
    };
    return keys;
}

const SettingKey &FindSettingKey(const std::string &name)
{
    std::string known;
    for (const SettingKey &key : SettingKeys()) {
        if (name == key.name)
            return key;
        known += std::string("\n  ") + key.name + " (" + key.what + ")";
    }
    throw Error(Error::Kind::kBadRequest, "unknown settings key \"" + name + "\"; the TV's keys are:" + known);
}

std::optional<std::string> GetSetting(const SettingKey &key)
{
    if (key.bNumber) {
        int number = 0;
        if (tvhost::settings::GetInt(key.name, number))
            return std::to_string(number);
    } else {
        std::string text;
        if (tvhost::settings::GetString(key.name, text))
            return text;
    }
    return std::nullopt;
}

void SetSetting(const SettingKey &key, const std::string &value)
{
    if (key.bNumber)
        tvhost::settings::SetInt(key.name, ReadNumber(value, key.name));
    else
        tvhost::settings::SetString(key.name, value);
}

} // namespace hosttv
