#include "documents.h"

namespace qorvsim {

std::string EscapeXml(const std::string &strText)
{
    std::string out;
    out.reserve(strText.size());
    for (char c : strText) {
        switch (c) {
        case '&': out += "&amp;"; break;
        case '<': out += "&lt;"; break;
        case '>': out += "&gt;"; break;
        case '"': out += "&quot;"; break;
        case '\'': out += "&apos;"; break;
        default: out += c;
        }
    }
    return out;
}

std::string RegisteredDeviceList(const std::vector<Device> &vctDevices)
{
    std::string s = "<RegisteredDeviceList>";
    for (const Device &d : vctDevices) {
        s += "<RegisteredDevice id=\"" + EscapeXml(d.strID) + "\" status=\"" + EscapeXml(d.strStatus) + "\">";
        s += "<Type>" + EscapeXml(d.strType) + "</Type>";
        s += "<Name>" + EscapeXml(d.strName) + "</Name>";
        s += "</RegisteredDevice>";
    }
    return s + "</RegisteredDeviceList>";
}

std::string NewDeviceList(const std::vector<const Device *> &vctDevices)
{
    std::string s = "<NewDeviceList>";
    for (const Device *d : vctDevices)
        s += "<NewDevice id=\"" + EscapeXml(d->strID) + "\"><Type>" + EscapeXml(d->strType) + "</Type></NewDevice>";
    return s + "</NewDeviceList>";
}

std::string DeviceNotification(const Notification &noti, const Device &device)
{
    std::string s =
        "<DeviceNotification id=\"" + EscapeXml(noti.strID) + "\" type=\"" + EscapeXml(noti.strType) + "\">";
    s += "<Device id=\"" + EscapeXml(device.strID) + "\" type=\"" + EscapeXml(device.strType) + "\">" +
         EscapeXml(device.strName) + "</Device>";
    s += "<Notification>" + EscapeXml(noti.strText) + "</Notification>";
    s += "<Action type=\"" + EscapeXml(noti.strAction) + "\">Open</Action>";
    s += "<DisplayOption flag=\"" + EscapeXml(noti.strFlag) + "\" condition=\"" + EscapeXml(noti.strCondition) + "\"/>";
    return s + "</DeviceNotification>";
}

std::string MasterKeyList(const std::vector<MasterKey> &vctKeys)
{
    std::string s = "<MasterKeyList>";
    for (const MasterKey &k : vctKeys)
        s += "<MasterKey id=\"" + EscapeXml(k.strID) + "\" name=\"" + EscapeXml(k.strName) + "\">" +
             EscapeXml(k.strKey) + "</MasterKey>";
    return s + "</MasterKeyList>";
}

} // namespace qorvsim
