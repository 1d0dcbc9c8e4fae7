// hosttv's answers as JSON values, for `--json` and the web view. One way to
// build them: the text forms in hosttv.h dump these.
#pragma once

#include <nlohmann/json.hpp>

#include "hosttv/hosttv.h"

namespace hosttv {

// Keys keep the order they were added in, as a person reads them.
using JsonValue = nlohmann::ordered_json;

JsonValue ToJson(const Status &status);
JsonValue ToJson(const Power &power);
JsonValue ToJson(const WidgetState &widget);
// One pop-up: its item, app, texts, and its buttons' labels and icons.
JsonValue ToJson(const tvhost::notifications::Record &record);
JsonValue ToJson(const std::vector<tvhost::notifications::Record> &records);
JsonValue ToJson(const tvhost::apps::Launch &launch);
JsonValue ToJson(const Press &press);
JsonValue ToJson(const EventOutcome &outcome);

// One line, no spaces; bytes that are not UTF-8 become U+FFFD, since a JSON
// reader refuses them and engine texts may hold anything; every control a
// terminal would obey is a \u escape.
std::string Dump(const JsonValue &value);

} // namespace hosttv
