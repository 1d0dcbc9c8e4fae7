// The process-wide owner of the service's working parts: engine binding,
// notification presenter, TV control, widget watcher, data folder and the
// device catalogues. Starts the engine once the companion widget is installed,
// dispatches engine events, keeps the engine told of the TV's language.
#pragma once

#include <Ecore.h>
#include <atomic>
#include <libxml/tree.h>
#include <map>
#include <mutex>
#include <net_connection.h>
#include <string>
#include <vconf.h>
#include <vector>

#include "DataFolderHelper.h"
#include "LumoraNotification.h"
#include "LumoraParameter.h"
#include "LumoraQorvHelper.h"
#include "LumoraTvControl.h"
#include "LumoraWidgetChecker.h"

class LumoraManager : public IQorvHelperCallBack {
public:
    struct MasterKey_Info {
        std::string id;
        std::string name;
        std::string key;
    };

    struct RegisteredDevice {
        std::string id;
        std::string status;
        std::string type;
        std::string name;
    };

    struct Device_Command_Info {
        std::string voice_cmd;
        std::string execute_cmd;
        std::string service_id;
        std::string service_var;
        std::string service_value;
    };

    static LumoraManager *GetInstance();
    static void ReleaseInstance();

    int Construct();
    void Destory();

    int OnQorvEvent(int nEvent, std::string strParam1, std::string strParam2) override;

    static void m_HandleWidgetInstall(bool bInstalled);
    static void m_WidgetCheckerPipeCB(void *pData, void *pBuffer, unsigned int nBytes);
    static void m_ConnectionTypeChangedCB(connection_type_e eType, void *pUserData);
    static void m_CbSystemLanguageChanged(keynode_t *pKeyNode, void *pUserData);

    void m_PrintCurrentDeviceList();
    void m_PrintCurrentDeviceTypeList();
    void m_PrintCurrentCommandList();

private:
    LumoraManager();
    virtual ~LumoraManager();
    LumoraManager(const LumoraManager &) = delete;
    LumoraManager &operator=(const LumoraManager &) = delete;

    void m_SetQORVLanguage(std::string strLanguage);

    bool m_ParseDeviceTypeList(const char *pBuffer, int nSize);
    bool m_EleOnSupportedType(_xmlNode *pNode);
    bool m_ParseMasterKeyMessage(const char *pMessage);
    bool m_GetMasterKeyProperty(_xmlNode *pNode);
    std::string m_GetMasterKeyName(std::string &strKey);
    _xmlNode *m_FirstChildNode(_xmlNode *pParent, const char *pName);

    bool m_ParseDeviceNameList(const char *pBuffer, int nSize);
    bool m_ParseRegisteredDevice(const char *pBuffer, int nSize);
    bool m_ParseRegisteredDeviceDocument(const char *pBuffer, int nSize, const char *pFunction);
    bool m_EleOnRegisteredDevice(_xmlNode *pNode);
    bool m_ParseDeviceCommandList(const char *pBuffer, int nSize);
    bool m_EleOnCommand(_xmlNode *pNode);
    bool m_EleOnSubCommand(_xmlNode *pNode);

    // Set by the constructor; no operation reads them.
    int m_nReserved0;
    int m_nReserved1;
    std::string m_strReserved0;
    std::string m_strReserved1;

    std::vector<std::string> m_vctDeviceType;
    std::vector<RegisteredDevice> m_vctRegisteredDevice;
    std::map<std::string, Device_Command_Info> m_mapDeviceCommand;
    LumoraParameter *m_pRegisterList;
    LumoraNotification m_Notification;
    std::vector<MasterKey_Info> m_vctMasterKey;
    CLumoraQorvHelper m_QorvHelper;
    CLumoraTvControl m_TvControl;
    CLumoraWidgetChecker m_WidgetChecker;
    CDataFolderHelper m_DataFolderHelper;
    connection_h m_connection;

    // An engine may raise events from several threads; they are handled one at a time.
    std::mutex m_EventMutex;

    static LumoraManager *m_pInstance;
    static Ecore_Pipe *m_pWidgetCheckerPipe;
    static std::atomic<bool> m_bWidgetInstalled;

    friend class LumoraManagerTestPeer;
};
