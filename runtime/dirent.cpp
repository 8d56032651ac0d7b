// Directory streams: one heap block with the descriptor and the record readdir fills. System code.
#include "runtime/dirent.h"

#include <cstring>

#include "runtime/errno.h"
#include "runtime/fd.h"
#include "runtime/heap.h"
#include "runtime/vfs.h"

namespace orlix {

namespace {

constexpr std::uint16_t RECORD_OVERHEAD = 19;

} // namespace

DIR* opendir(const char* path)
{
    Device* device = GetVFSDev();
    auto* dir = static_cast<DIR*>(malloc(sizeof(DIR)));
    if (dir == nullptr)
        return nullptr;
    dir->fd = vfs_opendir(device, path);
    if (dir->fd < 0) {
        free(dir);
        return nullptr;
    }
    return dir;
}

int readdir_r(DIR* dir, dirent* entry, dirent** result)
{
    VfsDirEntry record;
    std::uint64_t end = 0;
    *result = nullptr;
    if (vfs_readdir(GetVFSDev(), dir->fd, &record, &end) != 1)
        return -1;
    if (end != 0)
        return 0;
    std::memset(entry, 0, sizeof *entry);
    std::size_t length = std::strlen(record.name);
    entry->d_ino = record.inode;
    entry->d_off = 0;
    entry->d_reclen = static_cast<std::uint16_t>(length + RECORD_OVERHEAD);
    entry->d_type = record.type;
    std::memcpy(entry->d_name, record.name, length + 1);
    *result = entry;
    return 0;
}

dirent* readdir(DIR* dir)
{
    dirent* result = nullptr;
    if (readdir_r(dir, &dir->entry, &result) != 0)
        return nullptr;
    return result;
}

int closedir(DIR* dir)
{
    close(dir->fd);
    free(dir);
    return 0;
}

} // namespace orlix
