// Parsers of the engine's event parameters: the abstract base and its four
// subclasses (device notification, new device list, registered device list,
// command result).
#pragma once

#include <libxml/tree.h>
#include <string>
#include <unordered_map>
#include <vector>

class LumoraParameter {
public:
    virtual ~LumoraParameter() {}
    virtual bool Parse(const char *strParam1, const char *strParam2) = 0;
    virtual void Clear() = 0;

    static bool IsTRUE(std::string &str);
    static bool IsFALSE(std::string &str);
    // Splits on '|'; runs of separators count as one and no token is empty.
    static int Tokenize(std::string &str, std::vector<std::string> &tokens);
};

class CDeviceNotification : public LumoraParameter {
public:
    struct Data {
        std::string strID;
        std::string strType;
        std::string strCtrlName;
        std::string strNotiID;
        std::string strNotiType;
        std::string strNotiText;
        bool bWidgetLink = false;
        std::string strDisplayCondition;
        bool bDisplayFlag = false;
        int nDisplayPeriodMS = 0;
    };

    CDeviceNotification();
    ~CDeviceNotification() override;
    bool Parse(const char *strParam1, const char *strParam2) override;
    void Clear() override;

    bool ParseDeviceNotification(const char *buffer, int size);
    bool Ele_OnDeviceNotification(xmlNode *node);

    Data m_Data;
};

class CNewDeviceList : public LumoraParameter {
public:
    struct Item {
        std::string strID;
        std::string strType;
    };

    CNewDeviceList();
    ~CNewDeviceList() override;
    bool Parse(const char *strParam1, const char *strParam2) override;
    void Clear() override;

    bool ParseNewDeviceList(const char *buffer, int size);
    bool Ele_OnNewDevice(xmlNode *node);
    bool m_MakeSummary();
    std::string GetSummary();
    void CopyIDs(std::vector<std::string> &ids);

    std::vector<Item> m_vecDevice;
    std::string m_strSummary;
};

class CRegisteredDeviceList : public LumoraParameter {
public:
    struct Item {
        std::string strID;
        std::string strCtrlName;
        bool bConnected = false;
        std::string status;
        std::string type;
    };

    CRegisteredDeviceList();
    ~CRegisteredDeviceList() override;
    bool Parse(const char *strParam1, const char *strParam2) override;
    void Clear() override;

    bool m_ParseRegisteredDevice(const char *buffer, int size);
    bool m_EleOnRegisteredDevice(xmlNode *node);
    void InsertDeviceList(CRegisteredDeviceList::Item item);

    std::vector<Item> m_vecDevice;

private:
    // Position in m_vecDevice of each id, made for one parse only (nothing
    // else changes the list meanwhile), so that a repeat is found without a
    // scan: a hostile list of many devices must not cost the engine thread
    // quadratic time. Without it (a merge outside a parse) the list is scanned.
    using Index = std::unordered_map<std::string, size_t>;
    bool m_EleOnRegisteredDevice(xmlNode *node, Index *pIndex);
    void InsertDeviceList(CRegisteredDeviceList::Item item, Index *pIndex);
};

class CCommandResult : public LumoraParameter {
public:
    struct Item {
        std::string strName;
        int nCount = 0;
        std::vector<std::string> vctValue;
    };

    CCommandResult();
    ~CCommandResult() override;
    bool Parse(const char *strParam1, const char *strParam2) override; // accepts anything
    void Clear() override;

    bool m_ParseSubCommandInfo(std::string &text);
    bool m_ParseSubCommandList(std::string &text);

    bool bValid;
    bool bSuccess;
    std::string strInfo;
    std::vector<Item> vctItem;
};
