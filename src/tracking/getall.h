#pragma once

#include "tk/message.h"

/// The query for all objects of a handler.
tk::message getAllFrom(const tk::Path& path);
