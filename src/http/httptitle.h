#pragma once

#include <string>

/// The method in a request's start line: the text before the first blank, the whole line without one.
std::string methodOf(const std::string& title);

/// The path in a request's start line: the text between the first blank and the first " HTTP/" after it, up
/// to the end of the line where that is missing; empty without a blank. A query is part of it.
std::string pathOf(const std::string& title);
