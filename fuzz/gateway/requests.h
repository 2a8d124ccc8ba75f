#pragma once

#include <cstddef>
#include <functional>
#include <string>

/// The requests of control points, as texts.
namespace fuzz {

/// How many services and actions there are to choose from.
constexpr unsigned serviceCount = 5;
constexpr unsigned actionCount = 17;

/// The part of a service's paths after the last slash: of the root device's one, then of the two of interface 2 and of
/// interface 4.
const char* serviceName(unsigned service);

/// A request without a body. `headers` are whole lines.
std::string bare(const std::string& method, const std::string& path, const std::string& host,
                 const std::string& headers);

/// A SOAP call of an action. `argument` gives the value of each of its arguments in order; null leaves one out.
/// Lifetime: the value is used before the next is asked for.
std::string soap(unsigned service, unsigned action, const std::string& host,
                 const std::function<const std::string*()>& argument);

}  // namespace fuzz
