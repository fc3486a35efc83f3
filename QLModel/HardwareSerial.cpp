#include "QLModel/HardwareSerial.h"

#include "QLModel/JsonObjectReader.h"

namespace ql {

Json JsonCoder<HardwareSerial>::encode(const HardwareSerial& value) { return Json{{"value", value.value}}; }

tl::expected<HardwareSerial, ModelDecodeError> JsonCoder<HardwareSerial>::decode(const Json& json,
                                                                                 const std::string& path) {
    JsonObjectReader r(json, path);
    HardwareSerial serial{r.required<std::string>("value")};
    if (!r.ok()) return tl::unexpected(r.error());
    return serial;
}

}  // namespace ql
