// ZuPrint.hpp: how much a print object holds, which tells a builder of strings where its text ends.
#pragma once

#include "kep/ZuPrint.h"

int32_t printLength(const ZuPrint *obj);
