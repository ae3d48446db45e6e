// The product family: every handle class a unit can be, and how it attaches. Shared by the
// library and the emulator; later tables (pin maps, limits, catalogue) grow beside this one.
#pragma once

#include <string_view>

namespace torvik::products {

enum class Link { Usb, Ethernet, Wifi };

struct Product {
    std::string_view class_name;  // the handle class, also its LABEL_DICT key
    Link link;
};

inline constexpr Product kProducts[] = {
    {"TorvikAirAnalog", Link::Wifi},     {"TorvikCore", Link::Ethernet},      {"TorvikCoreMini", Link::Ethernet},
    {"TorvikDrive", Link::Ethernet},     {"TorvikBox", Link::Ethernet},       {"TorvikLanLogic", Link::Ethernet},
    {"TorvikLanRelay", Link::Ethernet},  {"TorvikLanAnalog", Link::Ethernet}, {"TorvikLanOutput", Link::Ethernet},
    {"TorvikUsbLogic", Link::Usb},       {"TorvikUsbAnalog", Link::Usb},      {"TorvikUsbThermo", Link::Usb},
    {"TorvikUsbCan", Link::Usb},         {"TorvikUsbRtd", Link::Usb},         {"TorvikUsbSink", Link::Usb},
    {"TorvikUsbMixed", Link::Usb},
};

constexpr const Product* findProduct(std::string_view class_name) {
    for (const auto& p : kProducts)
        if (p.class_name == class_name) return &p;
    return nullptr;
}

}  // namespace torvik::products
