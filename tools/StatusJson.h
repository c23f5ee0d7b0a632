// A snapshot of the server's status as JSON, with the names and units of docs/status.md.
#pragma once

#include <string>

#include "JsonOutput.h"
#include "Status.h"

// Adds the members to the object that is open.
void PutServer(JsonOutput& json, const StatusServer& server);

// One object: server, totals, instances, losses, refusals (each with the meaning of its code) and hours.
std::string JsonOf(const StatusSnapshot& snapshot);

// One object: time and instances.
std::string InstancesJsonOf(const StatusSnapshot& snapshot);

// One object of what is different in `now`: server and totals always; `changed` instances, and the keys of
// those that are `gone`; the hours that changed; losses and refusals whole, each only if not what it was.
std::string ChangesJsonOf(const StatusSnapshot& before, const StatusSnapshot& now);
