// `ugs top`: the instances on a terminal, looked at again every second.
#pragma once

#include <string>

inline constexpr const char* kTopKeys =
    "Keys: a, c, f sort by age, cameras, the next count in use; / filters; arrows and Enter show one "
    "instance, "
    "Escape goes back; q quits. Without a terminal, or with TERM=dumb, this is `ugs status`.";

// Standard input and output are a terminal that can do more than TERM=dumb.
bool CanShowTop();

// Until q, Ctrl-C, SIGTERM, SIGHUP or the end of input; leaves the terminal as it was. Throws NoStatus if
// there is no server at first; one that goes away later is waited for.
void ShowTop(const std::string& socket);
