// Prepares the engine's data folder: created if missing and, the first time,
// given mode.xml, open permissions, the app user and the app's security label.
#pragma once

#include <string>

class CDataFolderHelper {
public:
    CDataFolderHelper();
    virtual ~CDataFolderHelper();

    // True when the folder is ready.
    bool CreateDataFolder();
    // Runs the command through the shell; true when it exited with status 0.
    bool ExecuteCommand(std::string strCommand);
};
