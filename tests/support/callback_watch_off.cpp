// SPDX-License-Identifier: MIT
// Where the linker cannot replace functions, or a sanitizer owns the program.
#include <support/callback_watch.h>

CallbackWatch::Counts CallbackWatch::counts()
{
    return {0, 0};
}

int CallbackWatch::forgive()
{
    return 0;
}

bool CallbackWatch::isOn()
{
    return false;
}
