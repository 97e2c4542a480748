// SPDX-License-Identifier: MIT
#include <base/mirrored_memory_p.h>

#include <mach/mach.h>
#include <mach/mach_vm.h>

namespace QTovelMixer {

char *mapTwice(size_t &bytes, bool)
{
    bytes = (bytes + vm_page_size - 1) / vm_page_size * vm_page_size;
    const vm_map_t task = mach_task_self();
    mach_vm_address_t start = 0;
    if (mach_vm_allocate(task, &start, 2 * bytes, VM_FLAGS_ANYWHERE) != KERN_SUCCESS)
        return nullptr;
    mach_vm_address_t second = start + bytes;
    vm_prot_t current = VM_PROT_NONE;
    vm_prot_t maximum = VM_PROT_NONE;
    const kern_return_t result =
        mach_vm_remap(task, &second, bytes, 0, VM_FLAGS_FIXED | VM_FLAGS_OVERWRITE, task, start,
                      FALSE, &current, &maximum, VM_INHERIT_NONE);
    if (result == KERN_SUCCESS)
        return reinterpret_cast<char *>(start);
    mach_vm_deallocate(task, start, 2 * bytes);
    return nullptr;
}

void unmapTwice(char *start, size_t bytes)
{
    mach_vm_deallocate(mach_task_self(), reinterpret_cast<mach_vm_address_t>(start), 2 * bytes);
}

} // namespace QTovelMixer
