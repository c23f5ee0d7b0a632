// The files of the page as `ugs page` serves them: in the program, so that nothing else need be installed.
#pragma once

#include <string_view>

extern const std::string_view kPageHtml;
extern const std::string_view kPageCss;
extern const std::string_view kPageJs;
