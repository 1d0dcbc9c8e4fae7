// The platform log reader and the replay plan over any bytes: no crash, every
// record within bounds, and a plan that survives its replay file unchanged.
#include <cstdint>
#include <fstream>
#include <unistd.h>

#include "FuzzSupport.h"
#include "tvlog/tvlog.h"

namespace {

std::string Scratch(const char *what)
{
    return "/tmp/fuzz_tvlog_" + std::to_string(getpid()) + what;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    FuzzQuietXml();
    const std::string path = Scratch(".log");
    std::ofstream(path, std::ios::binary | std::ios::trunc)
        .write(reinterpret_cast<const char *>(data), static_cast<std::streamsize>(size));
    try {
        tvlog::Reader reader(path);
        tvlog::Record r;
        size_t last = 0;
        while (reader.Next(r)) {
            FUZZ_CHECK(r.line > last && r.line <= reader.Lines());
            FUZZ_CHECK(!r.tag.empty() && r.text.size() <= tvlog::kMaxLine);
            last = r.line;
        }
    } catch (const tvlog::Error &) {}

    tvlog::Plan plan;
    try {
        plan = tvlog::PlanFromLog(path, {});
    } catch (const tvlog::Error &) {
        return 0;
    }
    const std::string file = Scratch(".xml");
    std::ofstream(file, std::ios::binary | std::ios::trunc) << tvlog::WriteReplayFile(plan, "fuzz");
    const tvlog::Plan back = tvlog::ReadReplayFile(file);
    FUZZ_CHECK(back.steps.size() == plan.steps.size());
    for (size_t i = 0; i < plan.steps.size(); ++i) {
        FUZZ_CHECK(back.steps[i].kind == plan.steps[i].kind);
        FUZZ_CHECK(back.steps[i].event == plan.steps[i].event);
        FUZZ_CHECK(back.steps[i].param1 == plan.steps[i].param1);
        FUZZ_CHECK(back.steps[i].param2 == plan.steps[i].param2);
    }
    FUZZ_CHECK(back.outcomes.size() == plan.outcomes.size());
    return 0;
}
