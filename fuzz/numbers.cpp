// A text that is to be a number: the conversions and the checks of arguments, against the C library's numbers
// of 64 bits.
#include <algorithm>
#include <cstdlib>
#include <limits>
#include <string>

#include "fuzz/target.h"
#include "net/convert.h"
#include "upnp/variable.h"

namespace {

using gateway::Variable;
using gateway::VariableType;

bool accepts(VariableType type, const std::string& text) {
    Variable variable({}, false);
    variable.type = type;
    return gateway::checkValue(variable, text);
}

bool acceptsInRange(std::uint32_t minimum, std::uint32_t maximum, const std::string& text) {
    Variable variable({}, false);
    variable.type = VariableType::ui4;
    variable.rangeSet = true;
    variable.minimum = minimum;
    variable.maximum = maximum;
    return gateway::checkValue(variable, text);
}

}  // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string text(fuzz::text(data, size));
    constexpr long long lowest = std::numeric_limits<std::int32_t>::min();
    constexpr long long highest = std::numeric_limits<std::int32_t>::max();
    constexpr long long end = 1LL << 32;
    char* rest = nullptr;
    const long long number = std::strtoll(text.c_str(), &rest, 10);  // limited to 64 bits
    const bool isWhole = rest == text.data() + text.size();
    const auto unsignedNumber =
        static_cast<std::uint32_t>(number >= end || number <= -end ? end - 1 : number);

    fuzz::require(gateway::toInt(text) == std::clamp(number, lowest, highest), "a number with a sign");
    fuzz::require(gateway::toUnsigned(text) == unsignedNumber, "a number without a sign");
    std::uint32_t value = 0;
    fuzz::require(gateway::isUnsigned(text, value) == isWhole && value == unsignedNumber, "a whole text");
    fuzz::require(gateway::toUnsigned(gateway::toString(value)) == value, "written and read again");
    fuzz::require(std::strtoul(gateway::toHexString(value).c_str(), nullptr, 16) == value,
                  "written with 16 digits");

    fuzz::require(accepts(VariableType::ui4, text) == isWhole, "an argument of 32 bits");
    fuzz::require(accepts(VariableType::ui2, text) == (isWhole && unsignedNumber < 65536), "a port");
    fuzz::require(acceptsInRange(10, 20, text) == (isWhole && value >= 10 && value <= 20), "a range");
    const bool isBoolean =
        text == "0" || text == "1" || text == "yes" || text == "no" || text == "true" || text == "false";
    fuzz::require(accepts(VariableType::boolean, text) == isBoolean, "a boolean");

    const std::uint32_t address = gateway::toAddress(text);
    fuzz::require(gateway::toAddress(gateway::ipToString(address)) == address,
                  "an address, written and read again");
    fuzz::require(gateway::toUpper(gateway::toUpper(text)) == gateway::toUpper(text), "upper case stays");
    return 0;
}
