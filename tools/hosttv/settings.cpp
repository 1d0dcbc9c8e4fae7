// The TV's settings keys that the service reads.
#include <algorithm>
#include <filesystem>

#include "hosttv/hosttv.h"
#include "hosttv/written.h"
#include "tvhost/parse.h"
#include "tvhost/settings.h"
#include "tvhost/tvhost.h"

namespace hosttv {

namespace {

bool IsLower(char c)
{
    return c >= 'a' && c <= 'z';
}

bool IsUpper(char c)
{
    return c >= 'A' && c <= 'Z';
}

// ll_CC.ENCODING, e.g. ko_KR.UTF-8: the service passes the part before the
// dot to the engine, and the TV's own values all have this form.
bool IsLocale(const std::string &value)
{
    size_t i = 0;
    while (i < value.size() && IsLower(value[i]))
        ++i;
    if (i < 2 || i > 3 || i + 4 > value.size() || value[i] != '_' || !IsUpper(value[i + 1]) || !IsUpper(value[i + 2]) ||
        value[i + 3] != '.')
        return false;
    const std::string encoding = value.substr(i + 4);
    if (encoding.empty())
        return false;
    for (char c : encoding)
        if (!IsLower(c) && !IsUpper(c) && !(c >= '0' && c <= '9') && c != '-' && c != '_')
            return false;
    return true;
}

} // namespace

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
        {kLanguageKey, false, "text, the TV's display language, e.g. ko_KR.UTF-8", IsLocale,
         "ll_CC.ENCODING, e.g. ko_KR.UTF-8 or en_US.UTF-8"},
        {kAppChangeKey, true, "number, bumped whenever an application is installed or removed", nullptr, ""},
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

void SetSetting(const SettingKey &key, const std::string &value, bool bForce)
{
    if (!bForce && key.accepts && !key.accepts(value))
        throw Error(Error::Kind::kCannot,
                    "\"" + value + "\" is not a value of " + key.name + ": it takes " + key.form +
                        "; the service would ignore it",
                    Error::Remedy::kForce, key.name);
    Written(key.bNumber ? tvhost::settings::SetInt(key.name, ReadNumber(value, key.name))
                        : tvhost::settings::SetString(key.name, value),
            std::string("the settings key ") + key.name);
}

std::vector<Language> Languages()
{
    // The country a TV pairs with a catalogue named by language alone; where
    // it is not the language's letters in capitals (de_DE, fr_FR).
    static const std::pair<const char *, const char *> kCountries[] = {
        {"en", "US"}, {"ko", "KR"}, {"ja", "JP"}, {"zh", "CN"}, {"sv", "SE"},
        {"da", "DK"}, {"cs", "CZ"}, {"el", "GR"}, {"uk", "UA"}, {"he", "IL"},
    };
    std::vector<Language> languages;
    std::error_code ec;
    const std::string dir = tvhost::Root() + "/usr/apps/org.kelvar.lumora/res/locale";
    for (const auto &entry : std::filesystem::directory_iterator(dir, ec)) {
        const std::string name = entry.path().filename().string();
        if (!std::filesystem::is_regular_file(entry.path() / "LC_MESSAGES/lumora.mo", ec))
            continue;
        std::string value = name;
        if (name.find('_') == std::string::npos) {
            std::string country;
            for (const auto &c : kCountries)
                if (name == c.first)
                    country = c.second;
            if (country.empty())
                for (char c : name)
                    country += static_cast<char>(IsLower(c) ? c - 'a' + 'A' : c);
            value += "_" + country;
        }
        value += ".UTF-8";
        if (IsLocale(value))
            languages.push_back({name, value});
    }
    std::sort(languages.begin(), languages.end(),
              [](const Language &a, const Language &b) { return a.catalogue < b.catalogue; });
    return languages;
}

} // namespace hosttv
