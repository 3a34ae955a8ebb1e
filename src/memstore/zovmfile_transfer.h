// SPDX-License-Identifier: Apache-2.0
//
// Files in memory for the layer of file handles: opening tells why it failed, and in
// transfers a shortage of memory is a failure and not the end of the file.
#ifndef ZOV_MEMSTORE_ZOVMFILE_TRANSFER_H
#define ZOV_MEMSTORE_ZOVMFILE_TRANSFER_H

#include "zov.h"

namespace zov {

// zov_mfOpen(). ZOV_OKAY with the file. Without, each with errno set: ZOV_NOMEMORY,
// ZOV_NOTFOUND, or ZOV_ERROR when the path is refused.
int32_t memOpen(const char *path, uint32_t flags, ZOV_MFILE &file);

// zov_mfRead() and its kin, but ZOV_IO_FAILED, with errno ENOMEM, when there was
// something to move and a shortage of memory let nothing be moved.
uint32_t memRead(ZOV_MFILE file, void *buffer, uint32_t length);
uint32_t memWrite(ZOV_MFILE file, const void *buffer, uint32_t length);
uint32_t memSeekRead(ZOV_MFILE file, uint64_t offset, void *buffer, uint32_t length);
uint32_t memSeekWrite(ZOV_MFILE file, uint64_t offset, const void *buffer, uint32_t length);

}  // namespace zov

#endif
