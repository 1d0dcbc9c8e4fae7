#include "DataFolderHelper.h"

#include <cstdlib>
#include <sys/stat.h>

#include "ExtLog.h"
#include "TvPaths.h"

namespace {

const char kDataFolder[] = LUMORA_TV_PATH("/opt/usr/apps/org.kelvar.lumora/data");
const char kShippedFolder[] = LUMORA_TV_PATH("/usr/apps/org.kelvar.lumora/bin");
const char kConfigFileName[] = "mode.xml";
const char kSmackLabel[] = "org.kelvar.lumora";

bool PathExists(const std::string &strPath)
{
    struct stat st;
    return stat(strPath.c_str(), &st) == 0;
}

} // namespace

CDataFolderHelper::CDataFolderHelper() {}

CDataFolderHelper::~CDataFolderHelper() {}

// Deliberate: the log shows at most 256 characters of a command, which runs
// whole; the "%0.256s" of these lines upsets -Wformat, which does not like the
// 0 flag with %s. Pinned by LumoraHelpersTest (data folder: long commands).
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat"
bool CDataFolderHelper::ExecuteCommand(std::string strCommand)
{
    LUMORA_LOG(EXT_LOG_DEBUG, "[ExecuteCommand] the command is '%0.256s'", strCommand.c_str());
    const int nResult = system(strCommand.c_str());
    if (nResult != 0)
        LUMORA_LOG(EXT_LOG_ERROR, "[ExecuteCommand] '%0.256s' is failed!!!", strCommand.c_str());
    return nResult == 0;
}
#pragma GCC diagnostic pop

bool CDataFolderHelper::CreateDataFolder()
{
    const std::string strData = kDataFolder;
    const std::string strBin = kShippedFolder;

    LUMORA_LOG(EXT_LOG_DEBUG, "[CreateQORVDataFolder] begin");
    if (!PathExists(strData)) {
        if (!ExecuteCommand("mkdir -p " + strData))
            return false;
    } else {
        LUMORA_LOG(EXT_LOG_DEBUG, "[CreateQORVDataFolder] the QORV storage path is already exist");
    }

    // Deliberate: the copied file marks a finished first run: permissions,
    // owner and label are set only on the run that copies it. Pinned by
    // LumoraHelpersTest (data folder: later runs).
    if (PathExists(strData + "/" + kConfigFileName)) {
        LUMORA_LOG(EXT_LOG_DEBUG, "[CreateQORVDataFolder] the QORV mode.xml is already exist");
        return true;
    }

    const std::string strLabel = std::string("\"") + kSmackLabel + "\" ";
    const std::string commands[] = {
        "cp " + strBin + "/" + kConfigFileName + " " + strData,
        "chmod 777 -R " + strData,
        "chown app.app -R " + strData,
        "chsmack -a " + strLabel + "-e " + strLabel + strData,
    };
    for (const auto &strCommand : commands)
        if (!ExecuteCommand(strCommand))
            return false;

    LUMORA_LOG(EXT_LOG_DEBUG, "[CreateQORVDataFolder] end");
    return true;
}
