// The answers of hosttv as JSON, for `--json` and the web view.
#include "hosttv/json.h"
#include "tvhost/log.h"
#include "tvhost/parse.h"

namespace hosttv {

namespace {

JsonValue Optional(const std::optional<std::string> &text)
{
    return text ? JsonValue(*text) : JsonValue(nullptr);
}

} // namespace

std::string Dump(const JsonValue &value)
{
    return tvhost::log::JsonForTerminal(value.dump(-1, ' ', false, JsonValue::error_handler_t::replace));
}

std::string JsonString(const std::string &text)
{
    return Dump(JsonValue(text));
}

JsonValue ToJson(const Power &power)
{
    return {{"off", power.bOff}, {"kind", power.bOff ? JsonValue(power.kind) : JsonValue(nullptr)}};
}

JsonValue ToJson(const WidgetState &widget)
{
    return {{"app", std::string(kWidgetApp)}, {"installed", widget.bInstalled}, {"running", widget.bRunning}};
}

JsonValue ToJson(const Status &s)
{
    JsonValue service = {{"running", s.servicePid != 0},
                         {"pid", s.servicePid ? JsonValue(s.servicePid) : JsonValue(nullptr)},
                         {"popupsOnScreen", s.popupsOnScreen ? JsonValue(*s.popupsOnScreen) : JsonValue(nullptr)}};
    return {{"service", service},   {"engine", {{"started", s.bEngineStarted}}}, {"widget", ToJson(s.widget)},
            {"network", s.network}, {"language", Optional(s.language)},          {"power", ToJson(s.power)},
            {"root", s.root}};
}

JsonValue ToJson(const tvhost::notifications::Record &r)
{
    JsonValue labels = JsonValue::array();
    JsonValue icons = JsonValue::array();
    for (int i = 0; i < r.Buttons(); ++i) {
        labels.push_back(Optional(r.buttonLabel[i]));
        icons.push_back(Optional(r.buttonIcon[i]));
    }
    return {{"item", r.itemId},
            {"app", Optional(r.appId)},
            {"title", Optional(r.title)},
            {"body", Optional(r.body)},
            {"subText", Optional(r.subText)},
            {"buttons", labels},
            {"icons", icons}};
}

JsonValue ToJson(const std::vector<tvhost::notifications::Record> &records)
{
    JsonValue out = JsonValue::array();
    for (const auto &r : records)
        out.push_back(ToJson(r));
    return out;
}

JsonValue ToJson(const tvhost::apps::Launch &launch)
{
    JsonValue extra = JsonValue::object();
    for (const auto &kv : launch.extraData)
        extra[kv.first] = kv.second;
    return {{"app", launch.appId}, {"operation", launch.operation}, {"extraData", extra}, {"result", launch.result}};
}

JsonValue ToJson(const Press &press)
{
    JsonValue launches = JsonValue::array();
    for (const auto &l : press.launches)
        launches.push_back(ToJson(l));
    return {{"label", Optional(press.label)}, {"launches", launches}};
}

JsonValue ToJson(const EventOutcome &outcome)
{
    return {{"answer", outcome.answer},
            {"shown", ToJson(outcome.shown)},
            {"powerOff", outcome.powerOff ? JsonValue(*outcome.powerOff) : JsonValue(nullptr)},
            {"serviceEnded", outcome.bServiceEnded}};
}

std::string Json(const Power &power)
{
    return Dump(ToJson(power));
}

std::string Json(const Status &status)
{
    return Dump(ToJson(status));
}

std::string Json(const std::vector<const SettingKey *> &keys)
{
    JsonValue out = JsonValue::object();
    for (const SettingKey *key : keys) {
        const std::optional<std::string> value = GetSetting(*key);
        // A number key's value is a number; an unset key is null.
        long long number = 0;
        out[key->name] = !value                                             ? JsonValue(nullptr)
                         : key->bNumber && tvhost::ParseInt(*value, number) ? JsonValue(number)
                                                                            : JsonValue(*value);
    }
    return Dump(out);
}

std::string Json(const std::vector<tvhost::notifications::Record> &records)
{
    return Dump(ToJson(records));
}

} // namespace hosttv
