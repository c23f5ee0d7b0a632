// The tables of the history, and how older ones become today's. docs/status.md describes them.
#pragma once

#include "Database.h"

// Makes the tables, or brings those of an older schema up to date. Throws DatabaseError, also if the file is
// another program's or of a later schema.
void UpgradeHistory(Database& database);

// Throws DatabaseError unless the tables are today's.
void CheckHistory(Database& database);
