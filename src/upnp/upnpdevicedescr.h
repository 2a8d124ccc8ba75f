#pragma once

#include <list>
#include <string>

#include "upnp/upnpicon.h"

/// The maker's web address, shown by control points.
constexpr const char* manufacturerAddress = "http://www.vantorel.example/";

/// The descriptive texts of one device. Those that are empty are left out of the description, unless noted.
struct UpnpDeviceDescr {
    std::string deviceType;                 // without "urn:", always written
    std::string friendlyName;               // always written
    std::string manufacturer = "Vantorel";  // always written
    std::string manufacturerURL = manufacturerAddress;
    std::string modelDescription;
    std::string modelName = "Quillnet";  // always written
    std::string modelNumber;
    std::string modelURL;
    std::string serialNumber;
    std::string UDN;  // without "uuid:", always written
    std::string UPC;
    std::list<UpnpIcon> icons;
    std::string presentationURL;
};
