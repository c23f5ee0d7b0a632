// The page for browsers without JavaScript.
#pragma once

#include <string>

#include "PageView.h"

// HTML without script or style of its own. All text in it is escaped.
std::string PlainPageOf(const View& view);
