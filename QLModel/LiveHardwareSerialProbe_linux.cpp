#include "QLModel/LiveHardwareSerialProbe.h"

#include <sys/stat.h>
#include <sys/sysmacros.h>

#include <cctype>
#include <filesystem>
#include <fstream>
#include <sstream>

namespace ql {
namespace fs = std::filesystem;
namespace {

std::optional<std::string> readBytes(const fs::path& path) {
    std::ifstream in(path, std::ios::binary);
    if (!in) return std::nullopt;
    std::stringstream buffer;
    buffer << in.rdbuf();
    return buffer.str();
}

// The SCSI unit serial number page: page code 0x80, a big-endian length, then the serial.
// Absent when the page is malformed or the serial is not printable text.
std::optional<std::string> unitSerialFromPage(const std::string& page) {
    if (page.size() < 4 || static_cast<unsigned char>(page[1]) != 0x80) return std::nullopt;
    std::size_t length = (static_cast<unsigned char>(page[2]) << 8) | static_cast<unsigned char>(page[3]);
    if (page.size() < 4 + length) return std::nullopt;
    auto serial = page.substr(4, length);
    for (unsigned char c : serial) {
        if (c != '\0' && !std::isprint(c)) return std::nullopt;
    }
    return serial;
}

std::optional<std::string> udevProperty(const fs::path& database, std::string_view name) {
    std::ifstream in(database);
    std::string line;
    const std::string prefix = "E:" + std::string(name) + "=";
    while (std::getline(in, line)) {
        if (line.rfind(prefix, 0) == 0) return line.substr(prefix.size());
    }
    return std::nullopt;
}

}  // namespace

SerialRegistryAnswer LiveHardwareSerialProbe::lookUp(const std::string& requested) const {
    std::string device = requested.rfind("/dev/", 0) == 0 ? requested.substr(5) : requested;
    if (device.empty() || device == "." || device == ".." || device.find('/') != std::string::npos) {
        return SerialRegistryAnswer::noMatchingDictionary();
    }
    const fs::path sys(options_.sysRoot);
    std::error_code error;
    const auto entry = sys / "class" / "block" / device;
    if (!fs::is_directory(entry, error)) return SerialRegistryAnswer::noService();

    // The serial belongs to the whole disk.
    std::string disk = device;
    if (fs::exists(entry / "partition", error)) {
        auto resolved = fs::canonical(entry, error);
        if (!error) disk = resolved.parent_path().filename().string();
    }
    const auto diskEntry = sys / "class" / "block" / disk;

    // "Serial Number": the disk's own serial. Sysfs shows empty attributes for devices that have
    // none, so an empty one only counts when nothing better turns up.
    bool sawEmpty = false;
    auto consider = [&](std::optional<std::string> value) -> std::optional<SerialRegistryAnswer> {
        if (!value) return std::nullopt;
        if (normalize(*value).empty()) {
            sawEmpty = true;
            return std::nullopt;
        }
        return SerialRegistryAnswer::found("Serial Number", std::move(value));
    };
    if (auto found = consider(readBytes(diskEntry / "device" / "serial"))) return *found;
    if (auto found = consider(readBytes(diskEntry / "serial"))) return *found;
    if (auto page = readBytes(diskEntry / "device" / "vpd_pg80")) {
        auto serial = unitSerialFromPage(*page);
        if (!serial) return SerialRegistryAnswer::found("Serial Number", std::nullopt);
        if (auto found = consider(std::move(serial))) return *found;
    }
    if (auto dev = readBytes(diskEntry / "dev")) {
        unsigned major = 0, minor = 0;
        if (std::sscanf(dev->c_str(), "%u:%u", &major, &minor) == 2) {
            auto database = fs::path(options_.udevData) / ("b" + std::to_string(major) + ":" + std::to_string(minor));
            if (auto found = consider(udevProperty(database, "ID_SERIAL_SHORT"))) return *found;
            if (auto found = consider(udevProperty(database, "ID_SCSI_SERIAL"))) return *found;
        }
    }

    // "USB Serial Number": a USB device above the disk.
    auto node = fs::canonical(diskEntry / "device", error);
    const auto devicesRoot = fs::weakly_canonical(sys / "devices", error);
    for (; !error && !node.empty() && node != devicesRoot && node != node.root_path(); node = node.parent_path()) {
        std::error_code ignored;
        if (!fs::exists(node / "idVendor", ignored)) continue;
        auto value = readBytes(node / "serial");
        if (!value) continue;
        if (normalize(*value).empty()) {
            sawEmpty = true;
            continue;
        }
        return SerialRegistryAnswer::found("USB Serial Number", std::move(value));
    }
    if (sawEmpty) return SerialRegistryAnswer::found("Serial Number", std::string());
    return SerialRegistryAnswer::neitherProperty();
}

}  // namespace ql
