// The answers of hosttv as JSON, for `--json` and the browser view.
#include <cstdio>

#include "hosttv/hosttv.h"

namespace hosttv {

namespace {

std::string Optional(const std::optional<std::string> &text)
{
    return text ? JsonString(*text) : "null";
}

std::string Bool(bool b)
{
    return b ? "true" : "false";
}

} // namespace

std::string JsonString(const std::string &text)
{
    std::string out = "\"";
    for (size_t i = 0; i < text.size(); ++i) {
        const char c = text[i];
        const unsigned char u = static_cast<unsigned char>(c);
        if (u >= 0x80) {
            // A JSON reader refuses broken UTF-8: such a byte becomes U+FFFD.
            const size_t n = (u >> 5) == 6 ? 2 : (u >> 4) == 14 ? 3 : (u >> 3) == 30 ? 4 : 0;
            size_t k = 1;
            while (n && k < n && i + k < text.size() && (static_cast<unsigned char>(text[i + k]) & 0xC0) == 0x80)
                ++k;
            if (n && k == n) {
                out.append(text, i, n);
                i += n - 1;
            } else {
                out += "\\ufffd";
            }
        } else if (c == '"' || c == '\\') {
            out += '\\';
            out += c;
        } else if (u < 0x20 || u == 0x7F) {
            char escaped[8];
            std::snprintf(escaped, sizeof escaped, "\\u%04x", u);
            out += escaped;
        } else {
            out += c;
        }
    }
    return out + "\"";
}

std::string Json(const Power &power)
{
    return "{\"off\":" + Bool(power.bOff) + ",\"kind\":" + (power.bOff ? std::to_string(power.kind) : "null") + "}";
}

std::string Json(const Status &s)
{
    std::string out = "{\"service\":{\"running\":" + Bool(s.servicePid != 0) +
                      ",\"pid\":" + (s.servicePid ? std::to_string(s.servicePid) : "null") +
                      ",\"popupsOnScreen\":" + (s.popupsOnScreen ? std::to_string(*s.popupsOnScreen) : "null") + "}";
    out += ",\"engine\":{\"started\":" + Bool(s.bEngineStarted) + "}";
    out += ",\"widget\":{\"app\":" + JsonString(kWidgetApp) + ",\"installed\":" + Bool(s.widget.bInstalled) +
           ",\"running\":" + Bool(s.widget.bRunning) + "}";
    out += ",\"network\":" + JsonString(s.network) + ",\"language\":" + Optional(s.language);
    out += ",\"power\":" + Json(s.power) + ",\"root\":" + JsonString(s.root) + "}";
    return out;
}

std::string Json(const std::vector<const SettingKey *> &keys)
{
    std::string out;
    for (const SettingKey *key : keys) {
        const std::optional<std::string> value = GetSetting(*key);
        out += (out.empty() ? "{" : ",") + JsonString(key->name) + ":" +
               (value && key->bNumber ? *value : Optional(value));
    }
    return out.empty() ? "{}" : out + "}";
}

std::string Json(const std::vector<tvhost::notifications::Record> &records)
{
    std::string out;
    for (const auto &r : records) {
        std::string buttons;
        for (int i = 0; i < r.buttonCount && i < static_cast<int>(r.buttonLabel.size()); ++i)
            buttons += (buttons.empty() ? "" : ",") + Optional(r.buttonLabel[i]);
        out += (out.empty() ? "[" : ",") + std::string("{\"item\":") + std::to_string(r.itemId) +
               ",\"app\":" + Optional(r.appId) + ",\"title\":" + Optional(r.title) + ",\"body\":" + Optional(r.body) +
               ",\"subText\":" + Optional(r.subText) + ",\"buttons\":[" + buttons + "]}";
    }
    return out.empty() ? "[]" : out + "]";
}

} // namespace hosttv
