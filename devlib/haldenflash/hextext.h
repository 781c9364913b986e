// Hexadecimal text. The camera and its version files name versions so.
#pragma once

#include "Common/types.h"

// The value of up to six hexadecimal digits. The first character that is no digit ends the number. A text without a
// digit has the value 0. ":" to "?" count as the digits 10 to 15, and so do "*" to "/": version files may hold them.
// A null argument is a programming error and stops the program.
Int32 axxtoi(const char *hexStg);
