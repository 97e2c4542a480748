// SPDX-License-Identifier: MIT
#ifndef QTOVELMIXER_TESTS_MIXER_FAULTS_RESOURCE_LIMITS_H
#define QTOVELMIXER_TESTS_MIXER_FAULTS_RESOURCE_LIMITS_H

#include <QtCore/QtGlobal>

#include <sys/resource.h>
#include <unistd.h>

#include <fstream>

/// Lowers a limit of this process while it lives.
class ResourceLimit
{
public:
    ResourceLimit(decltype(RLIMIT_AS) resource, rlim_t most) : m_resource(resource)
    {
        getrlimit(resource, &m_before);
        rlimit lowered = m_before;
        lowered.rlim_cur = most;
        m_isSet = setrlimit(resource, &lowered) == 0;
    }
    ~ResourceLimit() { setrlimit(m_resource, &m_before); }
    Q_DISABLE_COPY_MOVE(ResourceLimit)

    bool isSet() const { return m_isSet; }

private:
    decltype(RLIMIT_AS) m_resource;
    rlimit m_before = {};
    bool m_isSet = false;
};

/// While it lives, this process may map so many bytes more than it has.
class AddressLimit : public ResourceLimit
{
public:
    explicit AddressLimit(size_t more) : ResourceLimit(RLIMIT_AS, rlim_t(mappedBytes() + more)) {}

private:
    static size_t mappedBytes()
    {
        size_t pages = 0;
        std::ifstream("/proc/self/statm") >> pages;
        return pages * size_t(sysconf(_SC_PAGESIZE));
    }
};

/// While it lives, this process may open so many descriptors more.
class DescriptorLimit : public ResourceLimit
{
public:
    explicit DescriptorLimit(unsigned more) : ResourceLimit(RLIMIT_NOFILE, firstFree() + more) {}

private:
    // All below it are in use.
    static rlim_t firstFree()
    {
        const int descriptor = dup(0);
        close(descriptor);
        return rlim_t(descriptor);
    }
};

#endif
