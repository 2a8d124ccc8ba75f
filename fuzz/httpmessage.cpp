// A message in the form of HTTP, as a whole: what can be read of it is written and read again unchanged.
#include "http/httpmessage.h"

#include "fuzz/target.h"

using gateway::HTTPMessage;

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const HTTPMessage read{fuzz::text(data, size)};
    fuzz::require(read.names.size() == read.values.size(), "each header has a value");
    fuzz::require(gateway::methodOf(read.title).find(' ') == std::string::npos, "a method has no blank");
    fuzz::require(gateway::pathOf(read.title).size() <= read.title.size(), "a path is a part of the title");
    for (const std::string& name : read.names) fuzz::require(read.has(name), "a header is found by its name");
    if (!read.complete) return 0;
    const HTTPMessage again(read.toString());
    fuzz::require(again.complete, "a complete message is complete when it is read again");
    fuzz::require(again.title == read.title && again.names == read.names && again.values == read.values &&
                      again.body == read.body,
                  "a message that is read again is equal");
    return 0;
}
