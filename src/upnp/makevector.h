#pragma once

#include <algorithm>
#include <array>
#include <cstddef>
#include <string>
#include <vector>

namespace gateway {

/// Makes a container of the first `count` of the texts that follow, and ignores the rest.
template <typename Container, typename... Texts>
Container makeContainer(std::size_t count, const Texts*... texts) {
    const std::array<const char*, sizeof...(Texts)> all{texts...};
    Container container;
    for (std::size_t i = 0; i < std::min(count, all.size()); ++i) container.emplace_back(all[i]);
    return container;
}

/// The same as a vector of texts, the usual form of argument lists.
template <typename... Texts>
std::vector<std::string> makeVector(std::size_t count, const Texts*... texts) {
    return makeContainer<std::vector<std::string>>(count, texts...);
}

}  // namespace gateway
