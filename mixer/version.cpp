// SPDX-License-Identifier: MIT
#include <mixer/version.h>

#include <cstdio>

namespace {

struct VersionText
{
    char text[256] = {};

    VersionText() noexcept
    {
        std::snprintf(text, sizeof text, "libtovelcomponents version %d.%d.%d.%d (built in %s)",
                      QTOVELMIXER_VERSION_MAJOR, QTOVELMIXER_VERSION_MINOR,
                      QTOVELMIXER_VERSION_PATCH, QTOVELMIXER_VERSION_BUILD, QTOVELMIXER_BUILD_DATE);
    }
};

void write(int *where, int value)
{
    if (where)
        *where = value;
}

} // namespace

const char *QtTovelMixerVersionString(void)
{
    static const VersionText version;
    return version.text;
}

void QtTovelMixerVersionNumber(int *major, int *minor, int *patch, int *build)
{
    write(major, QTOVELMIXER_VERSION_MAJOR);
    write(minor, QTOVELMIXER_VERSION_MINOR);
    write(patch, QTOVELMIXER_VERSION_PATCH);
    write(build, QTOVELMIXER_VERSION_BUILD);
}
