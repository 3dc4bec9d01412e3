#include "onvif/DeviceService.h"

#include <unistd.h>

#include <ctime>

#include "onvif/SoapFault.h"
#include "onvif/XsdValues.h"

namespace onvif {

namespace {

void writeVersion(SoapWriter& out)
{
    out.open("tds:Version");
    out.element("tt:Major", "2");
    out.element("tt:Minor", "42");
    out.close();
}

void writeDeviceCapabilities(SoapWriter& out, const char* element)
{
    out.open(element);
    out.open("tds:Network");
    out.close();
    out.open("tds:Security");
    out.attribute("UsernameToken", "true");
    out.attribute("HttpDigest", "false");
    out.close();
    out.open("tds:System");
    out.close();
    out.close();
}

void writeService(SoapWriter& out, const char* ns, const std::string& address,
                  bool withCapabilities, bool search)
{
    out.open("tds:Service");
    out.element("tds:Namespace", ns);
    out.element("tds:XAddr", address);
    if (withCapabilities) {
        out.open("tds:Capabilities");
        if (search) {
            out.open("tse:Capabilities");
            out.attribute("MetadataSearch", "true");
            out.close();
        } else {
            writeDeviceCapabilities(out, "tds:Capabilities");
        }
        out.close();
    }
    writeVersion(out);
    out.close();
}

std::string hostName()
{
    char name[256] = "";
    gethostname(name, sizeof name - 1);
    return name;
}

}  // namespace

void DeviceService::answer(const SoapRequest& request, const std::string& base,
                           SoapWriter& out) const
{
    const std::string& operation = request.operation();
    const xmlNode* body = request.operationElement();
    if (operation == "GetServices") {
        services(body, base, out);
    } else if (operation == "GetServiceCapabilities") {
        out.open("tds:GetServiceCapabilitiesResponse");
        writeDeviceCapabilities(out, "tds:Capabilities");
        out.close();
    } else if (operation == "GetSystemDateAndTime") {
        clock(out);
    } else if (operation == "GetDeviceInformation") {
        information(out);
    } else if (operation == "GetCapabilities") {
        capabilities(body, base, out);
    } else {
        throw actionNotSupported(
            "the device service here offers only GetServices, "
            "GetServiceCapabilities, GetSystemDateAndTime, "
            "GetDeviceInformation and GetCapabilities, not " +
            operation);
    }
}

void DeviceService::services(const xmlNode* request, const std::string& base, SoapWriter& out) const
{
    const bool withCapabilities =
        readBoolean(textOf(childNamed(request, "IncludeCapability"))).value_or(false);
    out.open("tds:GetServicesResponse");
    writeService(out, kDeviceNamespace, base + kDevicePath, withCapabilities, false);
    writeService(out, kSearchNamespace, base + kSearchPath, withCapabilities, true);
    out.close();
}

void DeviceService::capabilities(const xmlNode* request, const std::string& base,
                                 SoapWriter& out) const
{
    bool device = false;
    bool search = false;
    const auto categories = childrenNamed(request, "Category");
    for (const xmlNode* category : categories) {
        const std::string name = textOf(category);
        if (name == "All")
            device = search = true;
        else if (name == "Device")
            device = true;
        else
            throw actionNotSupported("this device has no " + name + " service");
    }
    if (categories.empty()) device = search = true;
    out.open("tds:GetCapabilitiesResponse");
    out.open("tds:Capabilities");
    if (device) {
        out.open("tt:Device");
        out.element("tt:XAddr", base + kDevicePath);
        out.close();
    }
    if (search) {
        out.open("tt:Extension");
        out.open("tt:Search");
        out.element("tt:XAddr", base + kSearchPath);
        out.element("tt:MetadataSearch", "true");
        out.close();
        out.close();
    }
    out.close();
    out.close();
}

void DeviceService::clock(SoapWriter& out) const
{
    const std::time_t now = std::time(nullptr);
    std::tm utc{};
    gmtime_r(&now, &utc);
    out.open("tds:GetSystemDateAndTimeResponse");
    out.open("tds:SystemDateAndTime");
    out.element("tt:DateTimeType", "NTP");
    out.element("tt:DaylightSavings", "false");
    out.open("tt:TimeZone");
    out.element("tt:TZ", "UTC0");
    out.close();
    out.open("tt:UTCDateTime");
    out.open("tt:Time");
    out.element("tt:Hour", std::to_string(utc.tm_hour));
    out.element("tt:Minute", std::to_string(utc.tm_min));
    out.element("tt:Second", std::to_string(utc.tm_sec));
    out.close();
    out.open("tt:Date");
    out.element("tt:Year", std::to_string(utc.tm_year + 1900));
    out.element("tt:Month", std::to_string(utc.tm_mon + 1));
    out.element("tt:Day", std::to_string(utc.tm_mday));
    out.close();
    out.close();
    out.close();
    out.close();
}

void DeviceService::information(SoapWriter& out) const
{
    out.open("tds:GetDeviceInformationResponse");
    out.element("tds:Manufacturer", "recording_search");
    out.element("tds:Model", "recording_search_web");
    out.element("tds:FirmwareVersion", RS_VERSION);
    out.element("tds:SerialNumber", hostName());
    out.element("tds:HardwareId", "");
    out.close();
}

}  // namespace onvif
