#pragma once

#include <initializer_list>

#include "FileDescriptor.h"

// Blocks these signals in the calling thread, and in those that it makes from now on; they are read from the
// descriptor instead, which does not block. Throws std::system_error. signalfd(2).
FileDescriptor SignalFile(std::initializer_list<int> signals);
