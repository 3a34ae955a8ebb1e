/* SPDX-License-Identifier: Apache-2.0 */
/**
 * @file zov.h
 * The public interface of libzov, the platform layer under a database engine,
 * its server and its utilities, on Linux for x86-64 and for 64-bit Arm. It reads as
 * C11 and as C++.
 *
 * ## Contents
 *
 * The families in their order here, with the prefix that most of their names have,
 * their handles, and who makes and who releases them. The last column tells who may
 * use one object: "any" is any number of threads at once, "one" is one at a time.
 *
 * | family | prefix | handle | made by | released by | threads |
 * |--------|--------|--------|---------|-------------|---------|
 * | @ref zov_marks | `ZOV_` | | | | |
 * | @ref zov_statuses | `ZOV_` | | | | |
 * | @ref zov_startup | `zov_` | the library | zov_init() | zov_term() | any |
 * | @ref zov_memory | `zov_` | ::ZOV_TAG | zov_createTagEx() | zov_freeTagMemory() | one, or any |
 * | | | a block | zov_getMem() | zov_freeMem() | as its tag |
 * | @ref zov_syncobjects | `zov_sync` | | | | |
 * | | | ::ZOV_SYNC | zov_syncCreate_check() | zov_syncDelete() | any |
 * | @ref zov_threading | `zov_thread` | ::ZOV_THREAD | zov_threadBeginEx() | | any |
 * | @ref zov_pools | `zov_` | ::ZOV_POOL | zov_allocPool() | zov_zFreePool() | one, or any |
 * | @ref zov_queues | `zov_queue` | ::ZOV_QUEUE | zov_queueCreate() | zov_queueDelete() | any |
 * | @ref zov_numbers | `zov_swap`, `zov_align` | | | | |
 * | @ref zov_native | `zov_fl`, `zov_dir` | a descriptor | zov_flOpen() | zov_flClose() | any |
 * | | | ::ZOV_DISK_WALK | zov_flPathOpen() | zov_flPathClose() | one |
 * | @ref zov_files | `zov_file` | ::ZOV_FILE | zov_fileOpen() | zov_fileClose() | any |
 * | @ref zov_fileutil | `zov_file`, `zov_dir` | | | | |
 * | | `zov_path` | ::ZOV_PATH_WALK | zov_pathOpenEx() | zov_pathClose() | one |
 * | @ref zov_paths | `zov_path` | | | | |
 * | @ref zov_unicode | `zov_utf8`, `zov_convert` | | | | |
 * | @ref zov_wildcards | `zov_match` | | | | |
 * | @ref zov_memfiles | `zov_mf` | ::ZOV_MFILE | zov_mfOpen() | zov_mfClose() | any |
 * | | `zov_mfPath` | ::ZOV_MEM_WALK | zov_mfPathOpen() | zov_mfPathClose() | one |
 * | @ref zov_format | `zov_makeStr` | | | | |
 * | @ref zov_streams | `zov_f` | ::ZOV_STREAM | zov_fopen() | zov_fclose() | one |
 * | @ref zov_output | `zov_fileStack` | | | | |
 * | | | ::ZOV_FILE_STACK | zov_fileStackInit() | zov_fileStackTerm() | one |
 * | | `zov_log` | ::ZOV_LOG_CHUNK | zov_log_chunk_init() | zov_log_chunk_end() | one |
 * | @ref zov_strings | `str`, `wcs` | | | | |
 * | @ref zov_random | `zov_rand` | ::ZOV_RAND | zov_randCreate() | zov_randDestroy() | one |
 * | @ref zov_inifiles | `zov_ini` | | | | |
 * | @ref zov_parser | `zov_yyparse` | | | | |
 * | @ref zov_buffers | `zov_inputBuff` | | | | |
 * | | | ::ZOV_INPUTBUFF | zov_inputBuffCreate() | zov_inputBuffDestroy() | one |
 * | | `zov_outputBuff` | | | | |
 * | | | ::ZOV_OUTPUTBUFF | zov_outputBuffCreate() | zov_outputBuffDestroy() | one |
 * | @ref zov_process | `zov_service` | | | | |
 * | @ref zov_time | `zov_time` | | | | |
 * | @ref zov_environment | `zov_getenv` | | | | |
 * | @ref zov_temporary | `zov_` | | | | |
 * | @ref zov_heap | `zov_shm` | ::ZOV_SHM_CTX | zov_shmOpenCtx() | zov_shmRemoveCtx() | one |
 * | | | ::ZOV_SHM_REGION | zov_shmCreate() | zov_shmDestroy() | one |
 * | @ref zov_mapcache | `zov_shmCache` | | | | |
 * | | | ::ZOV_CACHE_CTX | zov_shmCacheOpenCtx() | zov_shmCacheCloseCtx() | any |
 * | | | ::ZOV_CACHE_REGION | zov_shmCacheCreate() | zov_shmCacheClose() | any |
 * | @ref zov_segments | `zov_seg` | ::ZOV_SEG | zov_segOpen() | zov_segClose() | one |
 * | @ref zov_stages | `zov_` | | | | |
 *
 * ## Conventions
 *
 * They are referred to by number below. What they say goes for every function,
 * unless its own comment or that of its family says otherwise.
 *
 * 1. Names. Functions are `zov_` and lower camel case, constants `ZOV_NAME`.
 *    A form ending in `Ex` takes flags that the plain form leaves at 0, one ending
 *    in `W` takes wide strings; otherwise they are the plain form. A `V` takes an
 *    argument list. These names break the rule, since programs use them so: those
 *    with an underscore within, as zov_get_pid() and the `zov_log_` and `zov_utf8_`
 *    functions; strupr(), strlwr(), wcsupr() and wcslwr(), which another library of
 *    the program may define too; and the variables #server_name, #deviceHead and
 *    #deviceSem. Noun stands before verb in most families, and behind it as in
 *    zov_getMem() in tagged memory, pools, zov_convertToUTF8() and zov_readIniFile().
 * 2. Handles are opaque: sync objects and memory tags are 64-bit integers,
 *    all-ones when absent; files and streams are pointers, null when absent.
 *    Every creating call names the call that releases what it made. When
 *    creation fails nothing is owed.
 * 3. Results. ::ZOV_STATUS is 0 for success, ::ZOV_BOOL is 1 or 0; see "How a call
 *    says no". Byte counts of transfers are unsigned 32-bit, #ZOV_IO_FAILED meaning
 *    failure. Positioned transfers take a signed 64-bit byte offset, of which
 *    #ZOV_OFFSET_CURRENT means the current position.
 * 4. Strings are NUL-terminated bytes, UTF-8 where they name files. Wide
 *    strings are NUL-terminated `wchar_t`, 4 bytes and one code point each.
 *    Where the text says "whole", a string may hold any bytes and its length
 *    is passed beside it.
 * 5. Threads. Any number of threads may be in a call at once, with the same object
 *    too. "One at a time" means calls on one object must not overlap; different
 *    objects may. Who releases an object makes sure that no other call on it is
 *    under way.
 * 6. Ownership. What is passed stays the caller's, and is not used after the call.
 *    Memory handed to the caller belongs to a tag, the default one unless
 *    said otherwise, and is released with zov_freeMem() on that tag.
 * 7. Jumps. A call returns. Only one that says "May jump" may leave through a
 *    recovery point (see zov_createTagEx()) instead. A function that names no tag
 *    and may jump allocates from the default tag, so it jumps only when a
 *    caller armed that one with zov_resetTag().
 * 8. Callers pass the name of their own source file and a line with every
 *    allocation and sync object; #ZOV_HERE gives both. They are used only in
 *    messages and must stay valid for the length of the call.
 * 9. Messages. A call writes none. One with a line "Messages" may write those in
 *    it, through the message path unless said otherwise.
 * 10. Arguments. A pointer is not null. An argument without a line of its own is the
 *     object that the call works on, or means what the function says of it that is
 *     named in the first sentence.
 * 11. Signals, and forks of a process with several threads. A handler, and
 *     until it executes a program or calls `_exit()` the child of such a fork, may
 *     call only what neither locks, nor allocates, nor writes a message; any
 *     other call may wait for ever for what the interrupted thread, or one that
 *     the child lacks, holds. These calls are: byte order, alignment, matching,
 *     zov_vsnprintf() and zov_snprintf(), strings, rounding and drawn random
 *     numbers; conversions of UTF-8 into memory of the caller; all zov_fl
 *     functions but walks and `W` forms, zov_dirCreate() and zov_dirRemove(); on a
 *     handle of a disk file transfers, seeking, length, size and sync, where a transfer that
 *     fails writes its message; getting and putting of typed buffers, with
 *     callbacks that keep to this, but not zov_inputBuffGetString(); the clocks,
 *     zov_sleep(), process ids and zov_daemonComplete(). A handler also keeps
 *     errno, and leaves objects alone that one thread at a time may use.
 * 12. Forks of a process with one thread. The child may call everything. Its
 *     memory is a copy: blocks, sync objects and those it is inside, queues, files
 *     in memory, what streams and redirections hold; nothing in it reaches the
 *     parent, and what is not flushed before the fork may be written by both.
 *     Files on disk are shared: a descriptor's position, and the locks of
 *     zov_fileLock() and zov_flLock(), which either may release. A program that
 *     is executed inherits no descriptor of the library's.
 * 13. Callbacks must not throw.
 * 14. When. A function may be called only between zov_init() and zov_term().
 * 15. Headers. This one brings the types that it uses. For the constants that some
 *     calls take a caller includes `<fcntl.h>` (`O_` flags), `<stdio.h>` or
 *     `<unistd.h>` (`SEEK_`), `<locale.h>` (`LC_`) and `<errno.h>` (errno and its
 *     values).
 *
 * ## How a call says no
 *
 * | result | of | yes | no |
 * |--------|----|-----|----|
 * | ::ZOV_STATUS | most calls that do something | #ZOV_OKAY, which is 0 | another of ::zov_status |
 * | | @ref zov_inifiles, @ref zov_buffers | 0 | their own codes; that of a callback |
 * | | @ref zov_native, removing, renaming | 0 | -1 with errno; zov_flOpen(): the error number |
 * | ::ZOV_BOOL | what asks a question | 1 | 0, also when there is no telling |
 * | a handle, an address | what makes or finds | it | null, #ZOV_NO_TAG, #ZOV_NO_SYNC; an id: 0 |
 * | bytes moved | @ref zov_files, @ref zov_native | all, or fewer | #ZOV_IO_FAILED with errno |
 * | | @ref zov_memfiles and what is beneath | all | fewer, with errno |
 * | | @ref zov_streams | all that was given | -1 with errno; zov_fputc(): 0 |
 * | a size or a time | of a handle | 0 or more | 0 |
 * | | of a path | 0 or more | -1 on disk, 0 in memory |
 * | characters | @ref zov_format, @ref zov_output | 0 or more | -1; a message 0 |
 * | | @ref zov_unicode | the length | #ZOV_UTF8_FAILED |
 * | nothing | calls without a result | | if at all by errno or an argument, as they say |
 *
 * Where a tag is armed a call that may jump does not return from a shortage of
 * memory at all (convention 7).
 */
#ifndef ZOV_H
#define ZOV_H

#include <pthread.h>
#include <setjmp.h>
#include <stdarg.h>
#include <stdint.h>
#include <time.h>
#include <wchar.h>

#ifdef __cplusplus
extern "C" {
#endif

/* ======================================================================== */
/**
 * @defgroup zov_marks Marks for the compiler
 * What the declarations below are marked with, and the macro that callers pass.
 * @{
 */

/** Marks what the shared library exports. */
#if defined(__GNUC__)
#define ZOV_API __attribute__((visibility("default")))
#else
#define ZOV_API
#endif

/** Lets the compiler check arguments against a format; the format grammar of
 *  zov_vsnprintf() is close enough to libc's for that. */
#if defined(__GNUC__)
#define ZOV_PRINTF(position, first) __attribute__((format(printf, position, first)))
#else
#define ZOV_PRINTF(position, first)
#endif

/** Marks what does not return. */
#if defined(__GNUC__)
#define ZOV_NORETURN __attribute__((noreturn))
#else
#define ZOV_NORETURN
#endif

#if defined(__clang__)
/** Clang's thread-safety analysis: a type of lock. Empty elsewhere. */
#define ZOV_CAPABILITY(name) __attribute__((capability(name)))
/** The same: a call that takes a lock. */
#define ZOV_ACQUIRE(handle) __attribute__((acquire_capability(handle)))
/** The same: a call that leaves a lock. */
#define ZOV_RELEASE(handle) __attribute__((release_capability(handle)))
#else
#define ZOV_CAPABILITY(name)
#define ZOV_ACQUIRE(handle)
#define ZOV_RELEASE(handle)
#endif

/** The caller's source name and line, for the two arguments of convention 8. A
 *  source file may define ZOV_SOURCE_NAME to go by another name than its own. */
#if defined(ZOV_SOURCE_NAME)
#define ZOV_HERE ZOV_SOURCE_NAME, __LINE__
#elif defined(__FILE_NAME__)
#define ZOV_HERE __FILE_NAME__, __LINE__
#else
#define ZOV_HERE __FILE__, __LINE__
#endif
/** @} */

/* ======================================================================== */
/**
 * @defgroup zov_statuses Statuses
 * The types and codes with which calls say how they went.
 * @{
 */

/** The status codes, one list from which the constants and zov_status come.
 *  Expands `X(name, value, meaning)` for each. */
#define ZOV_STATUS_LIST(X)                                                 \
  X(ZOV_OKAY, 0, "success")                                                \
  X(ZOV_TIMEOUT, 1, "a timed wait ran out")                                \
  X(ZOV_ERROR, 2, "general failure")                                       \
  X(ZOV_NOMEMORY, 3, "memory could not be obtained")                       \
  X(ZOV_EXISTS, 6, "the directory to be created exists already")           \
  X(ZOV_NOFILE, 7, "the first of two files could not be opened")           \
  X(ZOV_NOFILE2, 8, "the second of two files could not be opened")         \
  X(ZOV_UNSUPPORTED, 10, "the operation is not provided on this platform") \
  X(ZOV_NOTFOUND, 100, "a name was not found in a memory directory")

/** The codes of a ::ZOV_STATUS, but for those that a family has of its own. */
enum zov_status {
#define ZOV_STATUS_ENUM(name, value, meaning) name = (value),
  ZOV_STATUS_LIST(ZOV_STATUS_ENUM)
#undef ZOV_STATUS_ENUM
};

/** How an operation went: 0, #ZOV_OKAY, for success, and what the call names for each
 *  failure, mostly one of ::zov_status. */
typedef int32_t ZOV_STATUS;

/** A yes or a no. Calls give 1 or 0, and take any other number than 0 as a yes. */
typedef int32_t ZOV_BOOL;
/** @} */

/* ======================================================================== */
/**
 * @defgroup zov_startup Start-up, shut-down and modes
 * Every program calls zov_init() first and zov_term() last; in between are the flags that
 * change how the whole process works, and one lock that is always there. (core/zov)
 * @{
 */

/** Number of zov_init() calls not yet matched by zov_term(); 1 throughout
 *  start-up and shut-down. Below 1 the library is not started. Read only. */
ZOV_API extern int32_t zov_inited;

/** 1 while zov_term() shuts the modules down, else 0. Read only. */
ZOV_API extern ZOV_BOOL zov_terminating;

/** Set by zov_rdonly(): the file handles and utilities, and what stands on them,
 *  neither write, create, remove nor rename files on disk. A handle that was open
 *  before takes nothing more. A text stream or a log that was goes on taking
 *  bytes; those, and those it had not sent, are dropped as if they had been
 *  written: flush before. The zov_fl functions do not look at the flag, nor do
 *  zov_dirCreate(), zov_dirCreateAll() and zov_dirRemove(). The guide to files
 *  has a table of all calls. */
ZOV_API extern ZOV_BOOL zov_readonly;

/** Set by zov_nodisk(): no disk file is opened, removed or renamed, and no
 *  directory is created, removed or walked. What was open before goes on as it
 *  was, to the disk. The zov_fl functions do not look at the flag, nor do
 *  zov_fileLengthStat() and zov_pathIsLink(). The guide to files has a table of
 *  all calls. */
ZOV_API extern ZOV_BOOL zov_diskless;

/** 1 when the process runs in the background: console output is silenced. */
ZOV_API extern ZOV_BOOL zov_background;

/** Name of the server in messages of a background process; "unknown" at
 *  first. Points at memory of whoever set it. */
ZOV_API extern const char *server_name;

/**
 * Starts the library, or counts one more user of a started one. The call that
 * brings #zov_inited to exactly 1 starts every module in order; if one fails,
 * those before it are taken down again in reverse and the count goes back, so
 * that a later call may try again.
 *
 * @return #ZOV_OKAY, or #ZOV_ERROR when a module failed to start. #ZOV_OKAY of a
 *         call that starts nothing, because the count was below 0, leaves the
 *         library down: #zov_inited tells.
 *
 * Threads: any at once; a second caller waits until a running start-up has finished.
 * May be called at any time. Messages: "Out of memory initializing ZOV memory
 * module" when the default tag cannot be made, and those of failing allocations.
 */
ZOV_API ZOV_STATUS zov_init(void);

/**
 * Takes back one zov_init(). The call that finds #zov_inited at exactly 1
 * shuts every module down, releases every tag with its blocks and destroys
 * every sync object; all handles are then dead. The count goes down whatever
 * it was: a call without its zov_init() leaves it at -1, and the next
 * zov_init() then starts nothing.
 *
 * May be called at any time. Threads: no other call of the library may be under way while
 * the last user leaves. A thread that waits in an event, or for a message of a
 * queue, keeps this call for as long as it waits: for ever without a limit. So
 * close the queues and signal the events first. Messages: those of failing
 * writes, when redirections are closed.
 */
ZOV_API void zov_term(void);

/**
 * Sets #zov_readonly for the rest of the process; nothing clears it again.
 * May be called before zov_init().
 */
ZOV_API void zov_rdonly(void);

/**
 * Sets #zov_diskless for the rest of the process; nothing clears it again.
 * May be called before zov_init().
 */
ZOV_API void zov_nodisk(void);

/**
 * Enters the process-wide critical section, a non-recursive lock that is
 * also held by zov_init() and zov_term() for their whole length. Works
 * whether or not the library is started.
 *
 * @return the result of pthread_mutex_lock(), 0 for success.
 *
 * Waits while another thread is inside. A thread that is
 * inside must not enter again or call zov_init() or zov_term(), nor what
 * enters on its own: zov_queueInit() and zov_queueTerm() where they start or
 * end the module, and what looks for the temporary directory.
 */
ZOV_API ZOV_STATUS zov_enterCritSec(void);

/**
 * Leaves the process-wide critical section.
 *
 * @return the result of pthread_mutex_unlock(), 0 for success.
 *
 * Threads: the one that entered.
 */
ZOV_API ZOV_STATUS zov_exitCritSec(void);
/** @} */

/* ======================================================================== */
/**
 * @defgroup zov_memory Tagged memory
 * Blocks that belong to a tag, are released one by one or with the tag, and may jump to
 * a recovery point when memory runs out. (core/zovmem)
 *
 * Threads: any number at once on a thread-safe tag, as the default one; a tag made without
 * the flag belongs to one thread.
 * @{
 */

/** A memory tag: a group of blocks that can be released all at once and that
 *  decides what a failed allocation does. 0 names the default tag, which is
 *  thread-safe and exists while the library is started. */
typedef uint64_t ZOV_TAG;

/** The default tag. */
#define ZOV_DEFAULT_TAG UINT64_C(0)
/** No tag: what zov_createTagEx() returns on failure. Allocating from it
 *  gives null, releasing to it does nothing. */
#define ZOV_NO_TAG UINT64_MAX

/** Flag of zov_createTagEx(): the tag may be used by any number of threads. */
#define ZOV_TAG_THREADSAFE 1u

/** How zov_getMem() fills the new block. */
enum zov_mem_mode {
  ZOV_MEM_PLAIN = 1,  /**< size bytes, not initialised */
  ZOV_MEM_ZERO = 2,   /**< size bytes, all zero */
  ZOV_MEM_STRDUP = 3, /**< a copy of the string at source; size is ignored */
  ZOV_MEM_COPY = 4,   /**< a copy of the size bytes at source */
  ZOV_MEM_WSTRDUP = 5 /**< a copy of the wide string at source; size is ignored */
};

/**
 * Makes a memory tag.
 *
 * @param recovery   a context filled by setjmp(), copied whole, or null. With
 *                   one, a failed allocation from the tag jumps there with the
 *                   value 1; the frame that called setjmp() must not return
 *                   while the tag is so armed. Without one it returns null.
 * @param flags      0 or #ZOV_TAG_THREADSAFE. A tag without the flag must be
 *                   confined to one thread; it is faster. When no mutex can be
 *                   made for the flag, because 131,072 sync objects exist or
 *                   memory is short, the tag is made without one all the same,
 *                   and nothing but that call's message tells.
 * @param sourceName caller's source name (unused)
 * @param line       caller's line (unused)
 * @return the tag, to be released with zov_freeTagMemory() and its delete
 *         flag (zov_term() releases what is left), or #ZOV_NO_TAG, also while
 *         the library is not started.
 *
 * Never jumps. Messages: none of its own; those of
 * zov_syncCreate_check() with the flag.
 */
ZOV_API ZOV_TAG zov_createTagEx(jmp_buf *recovery, uint32_t flags, const char *sourceName,
                                uint32_t line);

/**
 * Releases every block of a tag in one go, and the tag itself if asked.
 *
 * @param tag       the tag; the default tag's null name is ignored here
 * @param deleteTag non-zero: the tag is released too and its handle is dead
 *
 * Nobody may use a tag that is being deleted. Does nothing while the library is not started.
 * Cost: one libc call a block.
 */
ZOV_API void zov_freeTagMemory(ZOV_TAG tag, uint16_t deleteTag);

/**
 * Arms or disarms the recovery point of a tag, for instance in a new frame.
 *
 * @param recovery a context as in zov_createTagEx(), or null to disarm
 * @param tag      the tag, 0 for the default one; #ZOV_NO_TAG is ignored
 *
 * Does nothing while the library is not started.
 */
ZOV_API void zov_resetTag(jmp_buf *recovery, ZOV_TAG tag);

/**
 * Allocates a block from a tag. Blocks are aligned to 16 bytes and carry 16
 * bytes of overhead. Constant time: one libc call, a fixed number of pointer
 * updates, and one lock pair when the tag is thread-safe.
 *
 * @param size       bytes; 0 gives null except in the two string modes
 * @param tag        the tag, 0 for the default one
 * @param mode       one of ::zov_mem_mode; any other gives null
 * @param source     what to copy in the modes that copy; null there gives null
 * @param sourceName caller's source name
 * @param line       caller's line
 * @return the block, to be released with zov_freeMem() or with its tag, or
 *         null: with ENOMEM in errno when memory is short, also behind a jump;
 *         without a message or a jump for #ZOV_NO_TAG and while the library is
 *         not started.
 *
 * Messages: "Out of memory. Called from %s:%u" with the caller's place.
 * May jump: to the recovery point of the tag, when memory is short.
 */
ZOV_API void *zov_getMem(uint64_t size, ZOV_TAG tag, uint32_t mode, const void *source,
                         const char *sourceName, uint32_t line);

/**
 * Grows or shrinks a block, which may move; its contents stay up to the
 * smaller of the two sizes. A null block is allocated as by zov_getMem().
 *
 * @param block      the block, or null
 * @param newSize    the new size in bytes; 0 shrinks to an empty block
 * @param tag        the tag that owns the block, 0 for the default one
 * @param zero       non-zero: the bytes grown, at the end of the block, are
 *                   cleared (the whole block when it was null)
 * @param grownBytes how many bytes the block grows by, at most newSize; used
 *                   only with zero
 * @param sourceName caller's source name
 * @param line       caller's line
 * @return the block, or null, as zov_getMem(); the old block is then as it was.
 *
 * Messages, may jump: as zov_getMem().
 */
ZOV_API void *zov_extendMem(void *block, uint64_t newSize, ZOV_TAG tag, ZOV_BOOL zero,
                            uint64_t grownBytes, const char *sourceName, uint32_t line);

/**
 * Releases a block. A block that was released before is recognised, and the call
 * does nothing but say so. That holds however long ago it was released, by this
 * call or with all of its tag, and for the place that zov_extendMem() moved a
 * block away from; but not when the memory has been handed out again since, or
 * was given back to the system, as that of large blocks is at once: then the
 * second release does harm. The block that the tag released last is known in any
 * case. On other systems than x86-64 Linux only the latest nine are.
 *
 * @param block the block; null is ignored, and any while the library is not
 *              started
 * @param tag   the tag that owns it, 0 for the default one
 *
 * Messages: "Attempting to free previously freed memory", as a line on the
 * process's standard output.
 */
ZOV_API void zov_freeMem(void *block, ZOV_TAG tag);

/**
 * Hands a block over to another tag without moving it. Constant time.
 *
 * @param block      the block; null is ignored
 * @param newTag     the tag that shall own it, 0 for the default one
 * @param currentTag the tag that owns it, 0 for the default one. Nothing happens
 *                   when either is #ZOV_NO_TAG or the library is not started.
 *
 * Threads: as both tags allow; their locks are taken one after the other.
 */
ZOV_API void zov_moveMemTag(void *block, ZOV_TAG newTag, ZOV_TAG currentTag);

/**
 * Compares two ranges as unsigned bytes.
 *
 * @param first  first range
 * @param second second range
 * @param length bytes to compare; with 0 the ranges may be null
 * @return -1, 0 or 1 as the first range is smaller, equal or greater.
 *
 * Threads: any, whatever owns the ranges. May be called at any time.
 */
ZOV_API int32_t zov_memCmp(const void *first, const void *second, uint64_t length);
/** @} */

/* ======================================================================== */
/**
 * @defgroup zov_syncobjects Mutexes and events
 * Sync objects: recursive mutexes and manual-reset events. (core/zovuxthreads)
 * @{
 */

/** A sync object, a recursive mutex or an event; all-ones when absent. */
typedef uint64_t ZOV_SYNC ZOV_CAPABILITY("mutex");

/** No sync object. */
#define ZOV_NO_SYNC UINT64_MAX

/** Kinds of sync object. */
enum zov_sync_kind {
  ZOV_SYNC_MUTEX = 1, /**< a recursive mutex */
  ZOV_SYNC_EVENT = 2  /**< a manual-reset event, created signalled */
};

/** A wait without a limit. */
#define ZOV_WAIT_FOREVER UINT32_MAX

/**
 * Makes a sync object. At most 131,072 exist at once; their memory is recycled
 * and goes back to the system at shut-down only.
 *
 * @param kind       one of ::zov_sync_kind
 * @param sourceName caller's source name
 * @param line       caller's line
 * @return the object, to be released with zov_syncDelete() (zov_term()
 *         releases what is left), or #ZOV_NO_SYNC, also while the library is
 *         not started and when the system refuses the object.
 *
 * Messages: "Invalid semaphore type" for another kind, which uses up one of the
 * objects until zov_term(); "Insufficient number of
 * semaphores, called from %s:%d" with the caller's place when the table is
 * full; the allocation's message when there is no memory for a block of it.
 * May jump: no; running out of memory gives #ZOV_NO_SYNC.
 */
ZOV_API ZOV_SYNC zov_syncCreate_check(int32_t kind, const char *sourceName, uint32_t line);

/**
 * Destroys a sync object, which nobody may hold or wait on. 0 and
 * #ZOV_NO_SYNC are ignored. Deleting an object twice is not detected. Deleting
 * an event that a thread waits on keeps this call until that thread leaves.
 */
ZOV_API void zov_syncDelete(ZOV_SYNC handle);

/**
 * Enters a mutex, waiting while another thread is inside. The thread that is
 * inside may enter again; each entry wants an exit.
 *
 * Cost: one uncontended POSIX lock, nothing but a counter when
 * entered again. Messages: "Invalid mutex", for an event, a deleted mutex, 0 and
 * #ZOV_NO_SYNC, with which it does nothing else. No other number may be given.
 */
ZOV_API void zov_syncEnterExcl(ZOV_SYNC handle) ZOV_ACQUIRE(handle);

/**
 * Leaves a mutex; the last exit lets the next thread in. It is not checked
 * that the calling thread is the one inside: an exit by another one counts. One
 * too many does nothing while nobody is inside.
 *
 * Messages: "Invalid mutex", as zov_syncEnterExcl().
 */
ZOV_API void zov_syncExitExcl(ZOV_SYNC handle) ZOV_RELEASE(handle);

/**
 * Resets an event: later waits block until zov_syncResume().
 * Takes no lock. Messages: "Invalid event", for a mutex, a deleted
 * event, 0 and #ZOV_NO_SYNC. No other number may be given.
 */
ZOV_API void zov_syncStart(ZOV_SYNC handle);

/**
 * Signals an event: every present waiter wakes and later waits return at once,
 * until zov_syncStart(). A waiter may go on before this returns, so that a wait
 * does not tell that the event may be deleted.
 * Messages: "Invalid event", as zov_syncStart().
 */
ZOV_API void zov_syncResume(ZOV_SYNC handle);

/**
 * Waits until an event is signalled; does not reset it.
 *
 * @param handle the event
 * @param waitMs limit in milliseconds, #ZOV_WAIT_FOREVER for none. Each wake-up
 *               that finds the event reset again starts a new wait of this
 *               length.
 * @return #ZOV_OKAY when signalled, #ZOV_TIMEOUT when the limit ran out,
 *         #ZOV_ERROR for a mutex, a deleted event, 0 and #ZOV_NO_SYNC.
 *
 * Messages: "Invalid event" with #ZOV_ERROR.
 */
ZOV_API ZOV_STATUS zov_syncWait(ZOV_SYNC handle, uint32_t waitMs);

/**
 * Waits on the caller's own condition variable, of the real-time clock, for a
 * length of time. Call it in a loop that looks at what is waited for: spurious
 * wake-ups return 0 as any other does, and so do failures and, at once, a wait
 * that would end on a full second of the clock.
 *
 * @param condition the condition variable
 * @param mutex     its mutex, held by the caller
 * @param waitMs    limit in milliseconds
 * @return 1 when the limit ran out, else 0.
 *
 * May be called at any time.
 */
ZOV_API ZOV_BOOL zov_posix_cond_timedwait(pthread_cond_t *condition, pthread_mutex_t *mutex,
                                          uint32_t waitMs);
/** @} */

/* ======================================================================== */
/**
 * @defgroup zov_threading Threads
 * Starting and ending threads. They are detached: nobody joins them, and what is to be told
 * at their end goes through an event or a queue. (core/zovuxthreads)
 *
 * All of this family may be called at any time, started or not.
 * @{
 */

/** A thread, as pthread_self() names it. */
typedef uint64_t ZOV_THREAD;

/** Levels of zov_threadSetPriority(). */
enum zov_thread_level {
  ZOV_THREAD_LOW = -1,   /**< a quarter of the way up the policy's range */
  ZOV_THREAD_NORMAL = 0, /**< the middle of the range */
  ZOV_THREAD_HIGH = 1    /**< three quarters of the way up */
};

/** What zov_threadSetPriority() returns when the thread's parameters cannot be
 *  read. */
#define ZOV_THREAD_UNREADABLE UINT32_MAX

/**
 * Starts a detached thread, which nobody joins. It ends by returning from its
 * start routine, whose result is ignored, or by zov_threadEnd(). It runs with
 * SIGINT, SIGTERM and SIGCHLD blocked, so that these reach the threads the
 * library did not start; the caller's own mask is the same afterwards.
 *
 * @param start      the start routine
 * @param stackBytes size of its stack in bytes, 0 for the platform's default;
 *                   a size the platform refuses is ignored
 * @param argument   passed to the start routine; must live as long as that
 *                   needs it
 * @return #ZOV_OKAY, or #ZOV_ERROR when the library is not started or the
 *         platform refuses another thread.
 *
 * May be called at any time.
 */
ZOV_API ZOV_STATUS zov_threadBegin(void *(*start)(void *), uint32_t stackBytes, void *argument);

/**
 * As zov_threadBegin().
 *
 * @param thread place for the new thread's identifier, or null. It is written
 *               before the call returns, which the new thread may well not
 *               wait for; untouched on failure.
 */
ZOV_API ZOV_STATUS zov_threadBeginEx(void *(*start)(void *), uint32_t stackBytes, void *argument,
                                     ZOV_THREAD *thread);

/**
 * Sets a thread's priority within the range of its scheduling policy, which
 * stays. Under the usual time-sharing policy the range is 0 to 0, and every
 * level succeeds without effect.
 *
 * @param thread a thread that has not ended
 * @param level  one of ::zov_thread_level
 * @return #ZOV_OKAY; #ZOV_ERROR for another level or when the platform refuses;
 *         #ZOV_THREAD_UNREADABLE.
 *
 * May be called at any time.
 */
ZOV_API uint32_t zov_threadSetPriority(ZOV_THREAD thread, int32_t level);

/**
 * Ends the calling thread; does not return. Its C++ frames are unwound, so none
 * of them may be noexcept or swallow what passes. The process goes on, also
 * without its main thread. May be called at any time.
 */
ZOV_API void zov_threadEnd(void) ZOV_NORETURN;

/** Tells which thread calls. @return the calling thread; cannot fail. */
ZOV_API ZOV_THREAD zov_threadId(void);

/**
 * Not provided, since threads are detached.
 *
 * @param thread not used
 * @return #ZOV_UNSUPPORTED.
 *
 * May be called at any time.
 */
ZOV_API ZOV_STATUS zov_threadJoin(ZOV_THREAD thread);
/** @} */

/* ======================================================================== */
/**
 * @defgroup zov_pools Pools of memory
 * Chunks of memory that are put back and given out again, faster than a tag does it.
 * (core/zovpool)
 * @{
 */

/** A pool: chunks of memory that were put back, ready to be given out again;
 *  null when absent. */
typedef struct MemoryPool *ZOV_POOL;

/**
 * Makes a pool over a tag. Pool and chunks are blocks of the tag: releasing the
 * tag releases them all, whatever the pool or its users still hold, and only
 * the mutex of a thread-safe pool is left then.
 *
 * @param tag        the tag, 0 for the default one; a pool for several threads
 *                   wants a thread-safe tag
 * @param fixedSize  non-zero: every chunk is taken to be large enough for every
 *                   request, for which the caller answers; 0: a free chunk
 *                   that turns out too small is replaced
 * @param threadSafe non-zero: the pool has a mutex; when none can be made, the
 *                   pool is as without
 * @return the pool, to be released with zov_zFreePool(), or null.
 *
 * Threads: as the tag allows.
 * Messages: those of zov_getMem() and zov_syncCreate_check().
 * May jump: to the recovery point of the tag, when memory is short.
 */
ZOV_API ZOV_POOL zov_allocPool(ZOV_TAG tag, ZOV_BOOL fixedSize, ZOV_BOOL threadSafe);

/**
 * Takes a chunk out of a pool, the one put back last, or a new one from the
 * tag. Chunks are aligned to 16 bytes and carry 48 bytes of overhead.
 *
 * @param size       bytes; 0 gives a chunk without any
 * @param pool       the pool
 * @param mode       #ZOV_MEM_ZERO clears the bytes asked for, #ZOV_MEM_COPY
 *                   fills them from source, anything else leaves them
 * @param source     what to copy in mode #ZOV_MEM_COPY, else unused
 * @param sourceName caller's source name
 * @param line       caller's line
 * @return the chunk, to be released with zov_putInPool() or with the tag, or
 *         null when the tag has none and does not jump. A chunk too small that
 *         was to be replaced is gone then.
 *
 * Threads: any when both pool and tag are thread-safe, else one at a time.
 * Cost: a list operation and the lock pair of a thread-safe pool; only when no
 * chunk is free, or it is too small, the tag's own.
 * Messages, may jump: as zov_getMem() on the pool's tag.
 */
ZOV_API void *zov_getMemFromPool(uint64_t size, ZOV_POOL pool, int32_t mode, const void *source,
                                 const char *sourceName, uint32_t line);

/**
 * Puts a chunk into a pool for the next taker. A pool keeps 1000 free chunks;
 * what is put in beyond them goes back to the tag. A chunk of another pool is
 * taken in all the same and handed over to this pool's tag, under the rules of
 * zov_moveMemTag() for the tags of both.
 *
 * @param chunk what zov_getMemFromPool() returned; null is ignored
 * @param pool  the pool
 *
 * Threads: any when both pool and tag are thread-safe, else one at a time.
 * Messages: "Attempting to put a memory chunk into a pool that didn't create
 * it".
 */
ZOV_API void zov_putInPool(void *chunk, ZOV_POOL pool);

/**
 * Releases a pool and its free chunks. Chunks that are out stay blocks of the
 * tag and are released with that.
 *
 * @param pool the variable that holds the pool, null afterwards; a null one is
 *             left alone
 *
 * Threads: nobody may use the pool any more.
 */
ZOV_API void zov_zFreePool(ZOV_POOL *pool);
/** @} */

/* ======================================================================== */
/**
 * @defgroup zov_queues Queues of messages
 * Messages from any number of threads to any number of threads, in their order.
 * (core/zovqueue)
 *
 * A queue is of one process: a forked child has a copy with the messages in it, without the
 * threads that read and write it.
 * @{
 */

/** A message queue; null when absent. A message is a 64-bit value and two
 *  32-bit words, its code and its key. */
typedef struct MessageQueue *ZOV_QUEUE;

/** Flag of zov_queueWrite(): the message is read before all others. */
#define ZOV_QUEUE_FRONT 2

/** What zov_queueRead() returns of a closed queue. */
#define ZOV_QUEUE_CLOSED 3

/** The key of zov_queuePurge() that stands for every message. */
#define ZOV_QUEUE_EVERY_KEY UINT32_MAX

/**
 * Starts the queue module, which zov_init() leaves to the programs that use
 * queues. Outside its start and end zov_queueCreate() and zov_queueFind() give
 * null, zov_queueRead() gives #ZOV_ERROR, and the other calls do nothing.
 *
 * @param force low 16 bits non-zero: a running module is ended first, by
 *              zov_queueTerm(); 0: a running module is left as it is
 * @return #ZOV_OKAY, or #ZOV_ERROR when the library is not started or has no
 *         sync object to give.
 *
 * Threads: any; with force as zov_queueTerm().
 * Messages: those of zov_syncCreate_check().
 */
ZOV_API ZOV_STATUS zov_queueInit(int32_t force);

/**
 * Ends the queue module. What is left undone at zov_term() happens there.
 *
 * @param force low 16 bits non-zero: every queue is closed, so that readers
 *              leave, and then deleted; 0: nothing happens while a queue exists
 *
 * Threads: no other call of this module may be under way, but for readers that
 * wait in the queues. A queue in doubt (see zov_queueRead()) keeps this call for ever,
 * unless it comes from the thread that was told.
 */
ZOV_API void zov_queueTerm(int32_t force);

/**
 * Makes a queue, open and empty.
 *
 * @param name the queue's name, copied, or null for none; need not be unique
 * @return the queue, to be released with zov_queueDelete(), or null. It comes
 *         with the memory for 40 messages.
 *
 * Messages: those of zov_getMem() and zov_syncCreate_check().
 */
ZOV_API ZOV_QUEUE zov_queueCreate(const char *name);

/**
 * Deletes a queue with the messages left in it. Waits for the readers that are
 * waiting in it, for ever if one has no limit; close the queue first to have
 * them leave at once. Of a queue in doubt (see zov_queueRead()) this never
 * returns, unless it is called by the thread that was told. Constant time.
 *
 * @param queue the queue; null deletes nothing
 *
 * Threads: nobody may use the queue any more, but for the readers above. Who
 * reads the message that says so, or finds the queue closed, may delete it at
 * once: the write or close behind that need not have returned.
 * Messages: "Deleted too many queues", when deletions outnumber creations.
 */
ZOV_API void zov_queueDelete(ZOV_QUEUE queue);

/**
 * Puts a message into a queue, at its end, and wakes the reader that waits for
 * one. A message that is dropped is told by errno, which is left as it was when
 * the message is in: ENOMEM when memory is short, EPIPE for a closed queue. A
 * caller that has to know sets errno to 0 first.
 *
 * @param queue the queue
 * @param data  the message's value
 * @param code  its first word
 * @param key   its second word, by which zov_queuePurge() finds it
 * @param flags 0 or #ZOV_QUEUE_FRONT
 *
 * Never waits for a reader. Cost: one lock pair and a few pointer
 * updates; memory only when the queue is longer than it ever was; a system call
 * only when a reader sleeps.
 * Messages: "Invalid queue handle" as zov_queueRead(); "Out of memory. Called
 * from %s:%u".
 */
ZOV_API void zov_queueWrite(ZOV_QUEUE queue, uint64_t data, uint32_t code, uint32_t key,
                            int32_t flags);

/**
 * Takes the first message out of a queue, waiting for one if asked. Readers
 * wait one at a time: who comes while another waits is not served, nor given
 * up, before that one is, whatever its own limit.
 *
 * @param queue  the queue
 * @param data   place for the message's value
 * @param code   place for its code, or null
 * @param key    place for its key, or null
 * @param waitMs how long to wait for a message, in milliseconds; 0 not at all,
 *               #ZOV_WAIT_FOREVER without limit
 * @return #ZOV_OKAY; #ZOV_TIMEOUT when the limit ran out; #ZOV_ERROR when there
 *         was nothing to read and waitMs is 0, or for a null handle;
 *         #ZOV_QUEUE_CLOSED. The places are written only with #ZOV_OKAY.
 *
 * Cost: one lock pair when a message is there and nobody waits.
 * Messages: "Invalid queue handle" for a null handle, and for a deleted queue
 * where it is seen to be one, with which the call goes on; "unexpected empty queue
 * on %s" with the name, when a purge takes the message that a reader was woken
 * for: that reader is given #ZOV_ERROR, and its thread keeps the queue locked,
 * as one whose state is in doubt.
 */
ZOV_API ZOV_STATUS zov_queueRead(ZOV_QUEUE queue, uint64_t *data, uint32_t *code, uint32_t *key,
                                 uint32_t waitMs);

/**
 * Drops every message with a key from a queue that is not closed. See
 * zov_queueRead() for what a purge may do to a reader that is just waking.
 *
 * @param queue the queue
 * @param key   the key, or #ZOV_QUEUE_EVERY_KEY
 *
 * Cost: in proportion to the messages there, which nobody reads or
 * writes meanwhile. Messages: "Invalid queue handle" as zov_queueRead().
 */
ZOV_API void zov_queuePurge(ZOV_QUEUE queue, uint32_t key);

/**
 * Closes a queue for good: readers that wait leave, and from now on reads,
 * writes and purges do nothing.
 *
 * @param queue the queue; null is ignored
 *
 * Takes none of the queue's locks.
 */
ZOV_API void zov_queueClose(ZOV_QUEUE queue);

/**
 * Counts the messages in a queue, without a lock: the number may be out of date
 * when it arrives.
 *
 * @param queue the queue; null has none
 * @return the number of messages, 0 for a null queue.
 */
ZOV_API uint32_t zov_queueCount(ZOV_QUEUE queue);

/**
 * Finds a queue by its name.
 *
 * @param name the name, compared byte by byte; null finds nothing
 * @return the newest queue of that name, or null. It still belongs to who made
 *         it, and may be deleted by that one at any time.
 *
 * Cost: in proportion to the number of queues.
 */
ZOV_API ZOV_QUEUE zov_queueFind(const char *name);
/** @} */

/* ======================================================================== */
/**
 * @defgroup zov_numbers Byte order, alignment, version
 * Pure functions: any thread, at any time. None can fail. (core/zovswap, core/zovalign,
 * core/zovver)
 * @{
 */

/** Major version of this header; zov_version() gives the library's. */
#define ZOV_VERSION_MAJOR 11
/** Minor version of this header. */
#define ZOV_VERSION_MINOR 0
/** Build that this header is of. */
#define ZOV_VERSION_BUILD 620

/** Reverses 2 bytes. @return the 2 bytes of value in reverse order. */
ZOV_API uint16_t zov_swaporder16(uint16_t value);
/** Reverses 4 bytes. @return the 4 bytes of value in reverse order. */
ZOV_API uint32_t zov_swaporder32(uint32_t value);
/** Reverses 8 bytes. @return the 8 bytes of value in reverse order. */
ZOV_API uint64_t zov_swaporder64(uint64_t value);
/** Reverses a float. @return the float whose bit pattern is that of value, bytes reversed. */
ZOV_API float zov_swaporderf32(float value);
/** Reverses a double. @return the double whose bit pattern is that of value, bytes reversed. */
ZOV_API double zov_swaporderf64(double value);

/**
 * Finds the alignment class of a field type.
 *
 * @param letter the type's letter, of which the low 8 bits count: one of
 *               cCvVnsilLdaDbfFg, case-sensitive
 * @return the class, 0 to 6; 0 for an unknown letter.
 */
ZOV_API uint32_t zov_alignType(int32_t letter);

/**
 * Rounds an offset up to the alignment of a class: 1, 2, 4, 4, 4, 8, 8 bytes
 * for the classes 0 to 6.
 *
 * @param offset     offset in bytes
 * @param alignClass a class of zov_alignType(); one above 6 aligns nothing
 * @return the offset rounded up, modulo 65536.
 */
ZOV_API uint16_t zov_align(uint16_t offset, uint32_t alignClass);

/**
 * Tells the library's version.
 *
 * @param major place for the major number, or null
 * @param minor place for the minor number, or null
 * @param build place for the build number, or null
 */
ZOV_API void zov_version(uint16_t *major, uint16_t *minor, uint16_t *build);
/** @} */

/* ======================================================================== */
/**
 * @defgroup zov_native Native files
 * One function for each call of the system about files, on descriptors, for what has to
 * stand outside of the handles of @ref zov_files. The zov_fl functions look at neither the
 * read-only nor the diskless flag. (files/zovunix)
 * @{
 */

/** No native descriptor. */
#define ZOV_NO_DESCRIPTOR UINT64_MAX
/** A failed transfer. */
#define ZOV_IO_FAILED UINT32_MAX
/** The offset of a positioned transfer that means the current position. */
#define ZOV_OFFSET_CURRENT INT64_C(-1)

/** A walk through a directory on disk. */
typedef struct DiskWalk *ZOV_DISK_WALK;

/**
 * Opens a file of the system. One call of open(), with permissions 0666 less
 * the process's umask for a file it creates. The zov_fl functions, but for
 * those of walks, may all be called at any time, started or not, and leave errno
 * as the system set it; the four transfers clear it first.
 *
 * @param path       path
 * @param openFlags  the O_ flags of POSIX open(). O_CLOEXEC is added: a program
 *                   that is executed does not inherit the descriptor, unless
 *                   fcntl() takes FD_CLOEXEC off it
 * @param unused     ignored
 * @param descriptor where the descriptor goes, to be closed with zov_flClose();
 *                   #ZOV_NO_DESCRIPTOR on failure
 * @return 0, or the system's error number, which is errno too.
 */
ZOV_API ZOV_STATUS zov_flOpen(const char *path, uint32_t openFlags, uint32_t unused,
                              uint64_t *descriptor);

/**
 * Gives the descriptor of a standard stream. Nothing is opened, and the
 * descriptor should not be closed.
 *
 * @param descriptor   where the descriptor goes; untouched on failure
 * @param streamNumber 0 for input, 1 for output, 2 for errors
 * @return #ZOV_OKAY, or #ZOV_ERROR for another number.
 */
ZOV_API ZOV_STATUS zov_flOpenStd(uint64_t *descriptor, int32_t streamNumber);

/**
 * Closes a descriptor. On Linux it is gone even when the call fails, so the
 * call must not be repeated.
 *
 * @param descriptor the descriptor
 * @return 0, or -1 with errno set.
 */
ZOV_API ZOV_STATUS zov_flClose(uint64_t descriptor);

/**
 * Moves the current position.
 *
 * @param descriptor the descriptor
 * @param offset     bytes, from where whence says
 * @param whence     SEEK_SET, SEEK_CUR or SEEK_END
 * @return #ZOV_OKAY, or #ZOV_ERROR when the descriptor cannot be positioned
 *         there.
 *
 * Threads: any; the position belongs to all who use the descriptor.
 */
ZOV_API ZOV_STATUS zov_flSeek(uint64_t descriptor, int64_t offset, int32_t whence);

/**
 * Writes at the current position and moves it. Exactly one call of write():
 * what is short or interrupted is not taken up again, and Linux moves at most
 * 2,147,479,552 bytes a call.
 *
 * @param descriptor  the descriptor
 * @param buffer      what to write
 * @param lengthBytes how much of it
 * @return the bytes written, which may be fewer, or #ZOV_IO_FAILED with errno
 *         set.
 *
 * Threads: one at a time. Cost: the system call.
 */
ZOV_API uint32_t zov_flWrite(uint64_t descriptor, const void *buffer, uint32_t lengthBytes);

/**
 * Reads at the current position and moves it. Exactly one call of read().
 *
 * @param descriptor  the descriptor
 * @param buffer      where the bytes go
 * @param lengthBytes how many to read at most
 * @return the bytes read, 0 at the end of the file, or #ZOV_IO_FAILED with
 *         errno set.
 *
 * Threads: one at a time. Cost: the system call.
 */
ZOV_API uint32_t zov_flRead(uint64_t descriptor, void *buffer, uint32_t lengthBytes);

/**
 * Writes at an offset and leaves the current position alone; otherwise as
 * zov_flWrite().
 *
 * @param descriptor  the descriptor
 * @param offset      offset in bytes. #ZOV_OFFSET_CURRENT makes the call a
 *                    zov_flWrite(), which also serves what cannot be
 *                    positioned
 * @param buffer      what to write
 * @param lengthBytes how much of it
 * @return as zov_flWrite().
 *
 * Threads: any, with a real offset; else one at a time. Cost: the system call.
 */
ZOV_API uint32_t zov_flSeekWrite(uint64_t descriptor, int64_t offset, const void *buffer,
                                 uint32_t lengthBytes);

/**
 * Reads at an offset and leaves the current position alone; otherwise as
 * zov_flRead(). #ZOV_OFFSET_CURRENT makes the call a zov_flRead().
 *
 * @param descriptor  the descriptor
 * @param offset      offset in bytes
 * @param buffer      where the bytes go
 * @param lengthBytes how many to read at most
 * @return as zov_flRead().
 *
 * Threads: any, with a real offset; else one at a time. Cost: the system call.
 */
ZOV_API uint32_t zov_flSeekRead(uint64_t descriptor, int64_t offset, void *buffer,
                                uint32_t lengthBytes);

/**
 * Waits until everything written through any descriptor of the file is on the
 * disk.
 *
 * @param descriptor the descriptor
 * @return #ZOV_OKAY, or #ZOV_ERROR with errno set: for a pipe, a socket or a
 *         terminal always, with EINVAL. After a failure what was written may be
 *         lost, and a second call that succeeds does not bring it back.
 */
ZOV_API ZOV_STATUS zov_flSync(uint64_t descriptor);

/**
 * Tells the size of a file.
 * @param descriptor the descriptor
 * @return bytes; 0 also for what is not an open descriptor.
 */
ZOV_API int64_t zov_flSize(uint64_t descriptor);

/**
 * Cuts a file off or lengthens it with zero bytes. The position stays.
 *
 * @param descriptor the descriptor, open for writing
 * @param sizeBytes  the new size
 * @return 0, or -1 with errno set.
 */
ZOV_API ZOV_STATUS zov_flSetSize(uint64_t descriptor, int64_t sizeBytes);

/**
 * Takes the exclusive advisory lock on a whole file, without waiting. The lock
 * belongs to what the descriptor was opened as: another descriptor of the same
 * file is refused, in this process as in any other, while the same descriptor
 * gets it again. A child process that is forked shares it: either can release it
 * for both. Locks of fcntl() are others.
 *
 * @param descriptor the descriptor
 * @return #ZOV_OKAY, or #ZOV_ERROR when it is held elsewhere or the call
 *         failed.
 */
ZOV_API ZOV_STATUS zov_flLock(uint64_t descriptor);

/**
 * Releases the lock of zov_flLock(), as closing the descriptor does.
 * @param descriptor the descriptor
 * @return 0, or -1 with errno set.
 */
ZOV_API ZOV_STATUS zov_flUnlock(uint64_t descriptor);

/**
 * Renames a file or directory within its file system. What has the new name is
 * replaced in one step: at any moment the name is the old or the new file.
 *
 * @param oldPath path of what exists
 * @param newPath path it shall have
 * @return 0, or -1 with errno set.
 */
ZOV_API ZOV_STATUS zov_flRename(const char *oldPath, const char *newPath);

/**
 * Removes a file or an empty directory.
 * @param path path
 * @return 0, or -1 with errno set.
 */
ZOV_API ZOV_STATUS zov_flRemove(const char *path);

/**
 * Asks whether a path can be used. With a place for the second answer it is
 * enough that the path exists. Without one it must open for reading, which is
 * tried, and may wait where opening waits, as on a FIFO.
 *
 * @param path        path; links are followed
 * @param isDirectory gets 1 for a directory, else 0; or null
 * @return 1 or 0.
 */
ZOV_API ZOV_BOOL zov_flValidate(const char *path, ZOV_BOOL *isDirectory);

/**
 * Tells when a file was last modified.
 * @param path path; links are followed
 * @return whole seconds since 1970, UTC, or -1.
 */
ZOV_API int64_t zov_flModTime(const char *path);

/**
 * Creates a directory, with permissions 0777 less the process's umask.
 *
 * @param path path, of which all but the last part must exist
 * @return #ZOV_OKAY; #ZOV_EXISTS when something has that name; #ZOV_ERROR for
 *         any other failure, and always under the diskless flag.
 *
 * May be called at any time.
 */
ZOV_API ZOV_STATUS zov_dirCreate(const char *path);

/**
 * zov_dirCreate() of a wide path; #ZOV_ERROR also when the path cannot be
 * converted. Messages, may jump: as zov_convertToUTF8().
 */
ZOV_API ZOV_STATUS zov_dirCreateW(const wchar_t *path);

/**
 * Removes an empty directory. One that is missing counts as removed.
 *
 * @param path path
 * @return #ZOV_OKAY; #ZOV_ERROR on failure, and always under the diskless flag.
 *
 * May be called at any time.
 */
ZOV_API ZOV_STATUS zov_dirRemove(const char *path);

/**
 * zov_dirRemove() of a wide path; #ZOV_ERROR also when the path cannot be
 * converted. Messages, may jump: as zov_convertToUTF8().
 */
ZOV_API ZOV_STATUS zov_dirRemoveW(const wchar_t *path);

/**
 * Begins a walk through a directory on disk.
 *
 * @param directory path of the directory
 * @param pattern   which names to return, as for zov_match()
 * @return the walk, to be ended with zov_flPathClose(); null when the directory
 *         cannot be opened or memory is short, errno saying why, and when the
 *         library is not started.
 *
 * Messages, may jump: as zov_getMem() on the default tag.
 */
ZOV_API ZOV_DISK_WALK zov_flPathOpen(const char *directory, const char *pattern);

/**
 * Goes on to the next name that matches, in no particular order. "." and ".."
 * are names like any other.
 *
 * @param walk        the walk
 * @param isDirectory gets 1 for a directory, 0 for anything else, which
 *                    includes a link to one but where the file system does not
 *                    tell types; untouched at the end
 * @return the name, without the directory's path, in memory of the walk, where
 *         it stays until the next call; null at the end, when errno is as it
 *         was, and when the directory cannot be read on or memory is short, when
 *         errno says so.
 *
 * Threads: one at a time. Cost: one allocation a name, and a stat() where the
 * file system does not tell types.
 * Messages, may jump: as zov_getMem() on the default tag. A jump loses the name
 * it was for; the walk can go on or be closed.
 */
ZOV_API const char *zov_flPathNext(ZOV_DISK_WALK walk, ZOV_BOOL *isDirectory);

/**
 * Ends a walk and releases its last name.
 * @param walk the walk; null is ignored
 * Threads: one.
 */
ZOV_API void zov_flPathClose(ZOV_DISK_WALK walk);
/** @} */

/* ======================================================================== */
/**
 * @defgroup zov_files File handles
 * One kind of handle for files on disk, files in memory and the standard streams: what
 * programs read and write with. (files/zovfile)
 * @{
 */

/** An open file: on disk, in memory, or a standard stream. */
typedef struct FileHandle *ZOV_FILE;

/** Type flag: the file lives in the process's memory, not on disk. */
#define ZOV_FILE_MEMORY 0x0040u
/** Type flag: the file is never synced. */
#define ZOV_FILE_NOSYNC 0x0200u

/**
 * Opens a file. The paths "stdin", "stdout" and "stderr" stand for the
 * standard streams whatever the flags, unless #ZOV_FILE_MEMORY is set.
 *
 * @param path      path; null gives null
 * @param openFlags the O_ flags of POSIX open(). O_TRUNC brings O_CREAT with it
 * @param typeFlags #ZOV_FILE_MEMORY, #ZOV_FILE_NOSYNC and flags of the
 *                  caller's own; the low 16 bits count
 * @return the handle, to be closed with zov_fileClose(), or null, and errno
 *         says why. Beside the reasons of the system: EINVAL for a null path and
 *         while the library is not started, EROFS for opening a disk file to
 *         write or create it under the read-only flag, EACCES for any under the
 *         diskless flag; for a file in memory as zov_mfOpen().
 *
 * A disk file's descriptor is not inherited by programs that are executed, see
 * zov_flOpen().
 *
 * Cost: one allocation and open(), or zov_mfOpen(). Messages: that
 * of a failed allocation.
 */
ZOV_API ZOV_FILE zov_fileOpen(const char *path, uint32_t openFlags, uint32_t typeFlags);

/**
 * zov_fileOpen() of a wide path; null also when the path cannot be converted,
 * with EILSEQ. May jump: as zov_convertToUTF8().
 */
ZOV_API ZOV_FILE zov_fileOpenW(const wchar_t *path, uint32_t openFlags, uint32_t typeFlags);

/**
 * Closes a file; a standard stream stays open beneath its handle. Nobody may
 * hold the handle's lock. For a file in memory it waits for the file's lock, as
 * zov_mfClose() does. errno stays as it was unless the system fails to
 * close the file, when it says why.
 *
 * @param file the file
 *
 * Threads: one, when no other call on the handle is under way.
 * Messages: "Inconsistent file state %s", with the path, for a handle that has
 * lost its descriptor.
 */
ZOV_API void zov_fileClose(ZOV_FILE file);

/**
 * Moves the current position of a file.
 *
 * @param file   the file
 * @param offset bytes, from where whence says
 * @param whence SEEK_SET, SEEK_CUR or SEEK_END
 * @return #ZOV_OKAY, or #ZOV_ERROR for a position before the beginning, and in
 *         memory also for one past the end.
 *
 * Threads: one at a time.
 */
ZOV_API ZOV_STATUS zov_fileSeek(ZOV_FILE file, int64_t offset, int32_t whence);

/**
 * Writes at the current position and moves it. A short count is returned as it
 * comes; nothing is written twice.
 *
 * @param file        the file
 * @param buffer      what to write
 * @param lengthBytes how much of it; 0 does nothing
 * @return the bytes written; 0 for a disk file under the read-only flag, and for a
 *         file in memory from 2^47 on; #ZOV_IO_FAILED on failure, with errno set:
 *         in memory `ENOMEM`, when there is memory for none of the bytes.
 *
 * Threads: one at a time. Cost: one system call.
 * Messages: "Write failed, errno = %d", on the process's standard error; for a file
 * in memory that of a failed allocation instead.
 */
ZOV_API uint32_t zov_fileWrite(ZOV_FILE file, const void *buffer, uint32_t lengthBytes);

/**
 * Reads at the current position and moves it.
 *
 * @param file        the file
 * @param buffer      where the bytes go
 * @param lengthBytes how many to read at most; 0 does nothing
 * @return the bytes read, 0 at the end of the file, or #ZOV_IO_FAILED on
 *         failure, with errno set: in memory `ENOMEM`, when there are bytes to read
 *         and memory to reach none of them.
 *
 * Threads: one at a time. Cost: one system call.
 * Messages: "Read failed, errno = %d"; for a file in memory that of a failed
 * allocation instead.
 */
ZOV_API uint32_t zov_fileRead(ZOV_FILE file, void *buffer, uint32_t lengthBytes);

/**
 * Writes at an offset and leaves the current position of a disk file alone;
 * otherwise as zov_fileWrite().
 *
 * @param file        the file
 * @param offset      offset in bytes, or #ZOV_OFFSET_CURRENT to write at the
 *                    current position and move it. Any other below 0 fails on
 *                    disk; in memory it lies past 2^47.
 * @param buffer      what to write
 * @param lengthBytes how much of it; 0 does nothing
 * @return as zov_fileWrite().
 *
 * Threads: any with a real offset; else one at a time.
 * Cost: one system call. Messages: "Failed to seek and write, errno = %d"; for a
 * file in memory that of a failed allocation before it.
 */
ZOV_API uint32_t zov_fileSeekWrite(ZOV_FILE file, int64_t offset, const void *buffer,
                                   uint32_t lengthBytes);

/**
 * Reads at an offset and leaves the current position of a disk file alone;
 * otherwise as zov_fileRead().
 *
 * @param file        the file
 * @param offset      offset in bytes, or #ZOV_OFFSET_CURRENT to read at the
 *                    current position and move it. Any other below 0 fails on
 *                    disk; in memory it lies past the end.
 * @param buffer      where the bytes go
 * @param lengthBytes how many to read at most; 0 does nothing
 * @return as zov_fileRead().
 *
 * Threads: any with a real offset; else one at a time.
 * Cost: one system call. Messages: "Failed to seek and read, errno = %d"; for a file
 * in memory that of a failed allocation before it.
 */
ZOV_API uint32_t zov_fileSeekRead(ZOV_FILE file, int64_t offset, void *buffer,
                                  uint32_t lengthBytes);

/**
 * Tells the size of an open file.
 * @param file the file
 * @return bytes; 0 also when the system does not say.
 */
ZOV_API int64_t zov_fileLength(ZOV_FILE file);

/**
 * Tells the size of a file without opening it.
 *
 * @param path      path; links are followed
 * @param typeFlags type flags as for zov_fileOpen()
 * @return bytes, or -1 when there is no such file or the path is null; for one
 *         in memory as zov_mfSizeStat(), and 0 for a null path.
 */
ZOV_API int64_t zov_fileLengthStat(const char *path, uint32_t typeFlags);

/**
 * Cuts a file off or lengthens it with zero bytes. The position stays.
 *
 * @param file      the file, open for writing
 * @param sizeBytes the new size
 * @return 0; -1 on failure, and for a disk file under the read-only flag. For a
 *         file in memory as zov_mfSetSize().
 *
 * Threads: any, on a disk file.
 */
ZOV_API ZOV_STATUS zov_fileSetSize(ZOV_FILE file, int64_t sizeBytes);

/**
 * Locks a file for the caller. Waits for another thread that holds it through
 * the same handle, but not for another handle or process. A thread may lock a
 * handle again; the first unlock then already lets other processes in. A child
 * process that is forked shares the lock and can release it. A file in memory has
 * one lock for all its handles, and is waited for.
 *
 * @param file the file
 * @return #ZOV_OKAY, or a status that is not 0, at once, when the file is
 *         locked through another handle or by another process.
 *
 * Cost: one lock pair and one system call; the first lock of a
 * handle also makes its mutex, and where that fails threads that share the
 * handle are not kept apart. Messages: those of zov_syncCreate_check().
 *
 * A thread that holds a file in memory which the console or the log leads to may
 * wait for ever when it writes a message, or a call of its does: another thread's
 * message waits for the file, and keeps the first out of the console or the log.
 */
ZOV_API ZOV_STATUS zov_fileLock(ZOV_FILE file);

/**
 * Unlocks a file.
 * @param file the file
 * Threads: the one that locked it.
 */
ZOV_API void zov_fileUnlock(ZOV_FILE file);

/**
 * Waits until what was written to a file is on the disk. Does nothing for a
 * file opened with #ZOV_FILE_MEMORY or #ZOV_FILE_NOSYNC, nor under the
 * read-only flag.
 *
 * @param file the file
 * @return #ZOV_OKAY, or #ZOV_ERROR as zov_flSync(), so for a standard stream on a
 *         pipe or a terminal.
 */
ZOV_API ZOV_STATUS zov_fileSync(ZOV_FILE file);

/**
 * Tells when a file was last modified.
 *
 * @param path      path; links are followed
 * @param typeFlags type flags as for zov_fileOpen()
 * @return whole seconds since 1970, UTC; -1 when there is no such file, for a
 *         null path, and for a disk file under the diskless flag; for a file in
 *         memory as zov_mfModTime(), and 0 for a null path.
 */
ZOV_API int64_t zov_fileModTimeStat(const char *path, uint32_t typeFlags);
/** @} */

/* ======================================================================== */
/**
 * @defgroup zov_fileutil Files and directories by path
 * Copying, comparing, moving, removing and walking. (files/zovfile_util)
 *
 * Every path comes with the type flags of zov_fileOpen(): #ZOV_FILE_MEMORY sends
 * it to the memory file system, else it is a path on disk. The forms without
 * flags take paths on disk. The wide forms convert each path strictly and give
 * #ZOV_ERROR, or null, when one cannot be converted or memory is short, which they
 * say in a message; they do not jump. A null path is refused.
 * Two paths "are the same" when they are equal but for case and both on disk or
 * both in memory.
 * @{
 */

/** A walk over the names of a directory. */
typedef struct PathWalk *ZOV_PATH_WALK;

/**
 * Copies a file over another, in place. Of its blocks of 1024 bytes those that are
 * equal already are not written, and others that follow each other are written
 * together; after a failure those up to some place are. The destination is not
 * emptied first, and cut or grown to the source's length at the end. Two paths that
 * are the same file in memory are left alone. Nothing is synced.
 *
 * A destination on disk keeps its permissions. One that is missing is made, with
 * those permissions of a new file (0666 less the umask) that the source has for
 * group and others, as for zov_fileMoveEx().
 *
 * @param source           file to read: a plain file, links followed, a file in
 *                         memory, or "stdin"
 * @param sourceFlags      its type flags
 * @param destination      file to write, created if missing
 * @param destinationFlags its type flags
 * @return #ZOV_OKAY; #ZOV_ERROR when a file cannot be opened, read, written or
 *         closed, or memory is missing; or the status of setting the size. After
 *         a failure a destination that was there may hold part of the source,
 *         and one that was missing is gone again. The destination is untouched
 *         when the source is a directory, fifo, socket or device, which are not
 *         opened, or has bytes though its length is 0, as files under /proc.
 *
 * Threads: any, on files that nobody else changes. Messages: those of failing
 * transfers and allocations.
 */
ZOV_API ZOV_STATUS zov_fileCopyEx(const char *source, uint32_t sourceFlags, const char *destination,
                                  uint32_t destinationFlags);
/** zov_fileCopyEx() on disk. */
ZOV_API ZOV_STATUS zov_fileCopy(const char *source, const char *destination);
/** zov_fileCopy() with wide paths. */
ZOV_API ZOV_STATUS zov_fileCopyW(const wchar_t *source, const wchar_t *destination);
/** zov_fileCopyEx() with wide paths; the low 16 bits of the flags count. */
ZOV_API ZOV_STATUS zov_fileCopyExW(const wchar_t *source, uint32_t sourceFlags,
                                   const wchar_t *destination, uint32_t destinationFlags);

/**
 * Compares the contents of two files. Paths that are the same count as equal
 * without a look at either file. Opening a fifo waits.
 *
 * @param first       first file
 * @param firstFlags  its type flags
 * @param second      second file
 * @param secondFlags its type flags
 * @return #ZOV_OKAY when equal; #ZOV_ERROR when different or unreadable;
 *         #ZOV_NOFILE or #ZOV_NOFILE2 when the first or second cannot be
 *         opened; #ZOV_NOMEMORY.
 *
 * Threads and messages: as zov_fileCopyEx().
 */
ZOV_API ZOV_STATUS zov_fileCmpEx(const char *first, uint32_t firstFlags, const char *second,
                                 uint32_t secondFlags);
/** zov_fileCmpEx() on disk. */
ZOV_API ZOV_STATUS zov_fileCmp(const char *first, const char *second);
/** zov_fileCmp() with wide paths. */
ZOV_API ZOV_STATUS zov_fileCmpW(const wchar_t *first, const wchar_t *second);
/** zov_fileCmpEx() with wide paths; the low 16 bits of the flags count. */
ZOV_API ZOV_STATUS zov_fileCmpExW(const wchar_t *first, uint32_t firstFlags, const wchar_t *second,
                                  uint32_t secondFlags);

/**
 * Moves a file over another. Whatever fails, and whenever the process ends, the
 * destination holds the old file or all of the new one, and the source is there
 * until it does.
 *
 * On one file system, and in memory, the destination is replaced in one step. A
 * link is moved as a link, a directory with what is in it; in memory a directory
 * stays in its directory. Of two names of one file, hard links, the source goes.
 * Nothing is synced.
 *
 * Where renaming fails, and between disk and memory, the file is copied: to a
 * draft, which then replaces the destination in one step. On disk the draft stands
 * beside the destination under a name that begins with ".zov_mv", and is synced;
 * so is the directory before the source is removed, all not under
 * #ZOV_FILE_NOSYNC. So the disk needs room for both files, and a process that is
 * killed may leave a draft, for the user to remove. Links are followed; the file
 * that a link leads to stays. Permissions for group and others are those of the
 * source that a new file may have (0666 less the umask). If the new file is of
 * another group, that has none, and others have only what the group had too; where
 * /proc is missing, or the source has an access list, neither has any. Lists are
 * not kept. A file in memory has no permissions: a new file gets its usual ones,
 * less those that the file it replaces did not have.
 *
 * An empty directory on disk is replaced too. It is removed just before the step
 * and made again should that fail.
 *
 * @param source           file to move
 * @param sourceFlags      its type flags
 * @param destination      its new path
 * @param destinationFlags its type flags
 * @return #ZOV_OKAY, also when the source had to be copied and cannot be removed,
 *         or its name leads to another file by then; and with nothing done when
 *         the paths are the same or name the same entry of the same directory.
 *         #ZOV_ERROR with both files as they were: when the source is missing, is
 *         a link to the destination, is no plain file and would have to be copied,
 *         or grows meanwhile; when the destination is a directory that cannot be
 *         replaced, its directory takes no draft, or its path is too long for one;
 *         under the diskless flag if either is on disk, and under the read-only flag
 *         if the destination is: from disk to memory the source is copied then and
 *         stays, with #ZOV_OKAY. #ZOV_ERROR with the new file in
 *         its place and the source left when the directory cannot be synced;
 *         EINVAL and EACCES are no failure there.
 *
 * Threads and messages: as zov_fileCopyEx().
 */
ZOV_API ZOV_STATUS zov_fileMoveEx(const char *source, uint32_t sourceFlags, const char *destination,
                                  uint32_t destinationFlags);
/** zov_fileMoveEx() on disk. */
ZOV_API ZOV_STATUS zov_fileMove(const char *source, const char *destination);
/** zov_fileMove() with wide paths. */
ZOV_API ZOV_STATUS zov_fileMoveW(const wchar_t *source, const wchar_t *destination);
/** zov_fileMoveEx() with wide paths; the low 16 bits of the flags count. */
ZOV_API ZOV_STATUS zov_fileMoveExW(const wchar_t *source, uint32_t sourceFlags,
                                   const wchar_t *destination, uint32_t destinationFlags);

/**
 * Removes a file, or an empty directory on disk.
 *
 * @param path      its path
 * @param typeFlags its type flags
 * @return #ZOV_OKAY; on disk -1 with errno, or #ZOV_ERROR under the read-only
 *         and diskless flags; in memory as zov_mfRemove().
 */
ZOV_API ZOV_STATUS zov_fileRemoveEx(const char *path, uint32_t typeFlags);
/** zov_fileRemoveEx() on disk. */
ZOV_API ZOV_STATUS zov_fileRemove(const char *path);
/** zov_fileRemove() with a wide path. */
ZOV_API ZOV_STATUS zov_fileRemoveW(const wchar_t *path);
/** zov_fileRemoveEx() with a wide path; the low 16 bits of the flags count. */
ZOV_API ZOV_STATUS zov_fileRemoveExW(const wchar_t *path, uint32_t typeFlags);

/**
 * Renames a file or a directory. On disk an existing file of the new name is
 * replaced in one step; in memory see zov_mfRename().
 *
 * @param oldPath      its path
 * @param oldTypeFlags type flags of that path
 * @param newPath      its new path
 * @param newTypeFlags type flags of that path
 * @return #ZOV_OKAY; on disk -1 with errno, or #ZOV_ERROR under the read-only
 *         and diskless flags; in memory as zov_mfRename(); #ZOV_ERROR from disk to
 *         memory or back.
 */
ZOV_API ZOV_STATUS zov_fileRenameEx(const char *oldPath, uint32_t oldTypeFlags, const char *newPath,
                                    uint32_t newTypeFlags);
/** zov_fileRenameEx() on disk. */
ZOV_API ZOV_STATUS zov_fileRename(const char *oldPath, const char *newPath);
/** zov_fileRename() with wide paths. */
ZOV_API ZOV_STATUS zov_fileRenameW(const wchar_t *oldPath, const wchar_t *newPath);
/** zov_fileRenameEx() with wide paths; the low 16 bits of the flags count. */
ZOV_API ZOV_STATUS zov_fileRenameExW(const wchar_t *oldPath, uint32_t oldTypeFlags,
                                     const wchar_t *newPath, uint32_t newTypeFlags);

/**
 * Tells whether a path can be used.
 *
 * @param path        the path
 * @param typeFlags   its type flags
 * @param isDirectory null: a path on disk must open for reading, which may wait
 *                    as for zov_flValidate(), and one in memory exist; else the
 *                    path must exist, and gets 1 for a directory, 0 for anything
 *                    else
 * @return 1 when usable, 0 when not or, on disk, under the diskless flag.
 */
ZOV_API ZOV_BOOL zov_fileValidateEx(const char *path, uint32_t typeFlags, ZOV_BOOL *isDirectory);
/** zov_fileValidateEx() on disk. */
ZOV_API ZOV_BOOL zov_fileValidate(const char *path, ZOV_BOOL *isDirectory);
/** zov_fileValidate() with a wide path; 2 when it cannot be converted. */
ZOV_API int32_t zov_fileValidateW(const wchar_t *path, ZOV_BOOL *isDirectory);
/** zov_fileValidateEx() with a wide path; 2 when it cannot be converted. The
 *  low 16 bits of the flags count. */
ZOV_API int32_t zov_fileValidateExW(const wchar_t *path, uint32_t typeFlags, ZOV_BOOL *isDirectory);

/**
 * Creates a directory on disk with every directory above it that is missing. A
 * backslash separates as a slash does.
 *
 * @param path the directory
 * @return #ZOV_OKAY; #ZOV_EXISTS when it was there, or was made for a separator
 *         at the end of the path; #ZOV_ERROR when a directory cannot be made or
 *         under the diskless flag; #ZOV_NOMEMORY.
 *
 * Messages: those of failing allocations. May jump, before any
 * directory above the last is made.
 */
ZOV_API ZOV_STATUS zov_dirCreateAll(const char *path);
/** zov_dirCreateAll() with a wide path; does not jump. */
ZOV_API ZOV_STATUS zov_dirCreateAllW(const wchar_t *path);

/**
 * Moves a directory: by renaming it, or else by moving its files into the
 * destination, each as zov_fileMoveEx() does. The destination is created if
 * missing, on disk with no permission for group and others that a source on disk
 * lacks, and with the directories above it that are missing, each synced unless
 * #ZOV_FILE_NOSYNC is set. Directories in the source stay where they are, and the
 * source with them; a source on disk left empty is removed. In memory a directory
 * can be renamed within its directory, to a name that is free.
 *
 * @param source           directory to move
 * @param sourceFlags      its type flags
 * @param destination      its new path
 * @param destinationFlags its type flags
 * @return #ZOV_OKAY, also when there is no source, and with nothing done when both
 *         paths lead to one directory. #ZOV_ERROR with nothing changed when the
 *         destination is no directory or cannot be synced where it is made, the
 *         source cannot be read, the library is not started, or a path is on disk
 *         under the read-only or diskless flag.
 *         Else the status of creating the destination or of the first file that
 *         could not be moved; #ZOV_ERROR or #ZOV_NOMEMORY when the walk through
 *         the source broke off. Files moved before that stay moved.
 *
 * Threads and messages: as zov_fileCopyEx().
 */
ZOV_API ZOV_STATUS zov_dirMoveEx(const char *source, uint32_t sourceFlags, const char *destination,
                                 uint32_t destinationFlags);
/** zov_dirMoveEx() on disk. */
ZOV_API ZOV_STATUS zov_dirMove(const char *source, const char *destination);
/** zov_dirMove() with wide paths. */
ZOV_API ZOV_STATUS zov_dirMoveW(const wchar_t *source, const wchar_t *destination);
/** zov_dirMoveEx() with wide paths; does not jump. The low 16 bits of the flags
 *  count. */
ZOV_API ZOV_STATUS zov_dirMoveExW(const wchar_t *source, uint32_t sourceFlags,
                                  const wchar_t *destination, uint32_t destinationFlags);

/**
 * Begins a walk over the names of a directory. On disk "." and ".." are among
 * them, and the order is the system's.
 *
 * @param directory the directory
 * @param typeFlags its type flags
 * @param pattern   names to return, as in zov_match()
 * @return the walk, to be ended with zov_pathClose(); null when the directory
 *         cannot be opened, memory is short, an argument is null, the library is
 *         not started, or a directory on disk is meant under the diskless flag.
 *
 * Messages: those of failing allocations. May jump, before the
 * directory is opened.
 */
ZOV_API ZOV_PATH_WALK zov_pathOpenEx(const char *directory, uint32_t typeFlags,
                                     const char *pattern);
/** zov_pathOpenEx() on disk. */
ZOV_API ZOV_PATH_WALK zov_pathOpen(const char *directory, const char *pattern);
/** zov_pathOpen() with wide strings; does not jump. */
ZOV_API ZOV_PATH_WALK zov_pathOpenW(const wchar_t *directory, const wchar_t *pattern);
/** zov_pathOpenEx() with wide strings; does not jump. The low 16 bits of the
 *  flags count. */
ZOV_API ZOV_PATH_WALK zov_pathOpenExW(const wchar_t *directory, uint32_t typeFlags,
                                      const wchar_t *pattern);

/**
 * Steps a walk to its next matching name.
 *
 * @param walk        the walk; null ends at once
 * @param isDirectory place for 1 when the name is a directory's, else 0
 * @return the name, which the walk owns until the next step; null at the end,
 *         when errno is as it was, and when a directory on disk cannot be read on
 *         or memory is short, when errno says so.
 *
 * Threads: one at a time. Messages: those of failing allocations.
 */
ZOV_API const char *zov_pathNext(ZOV_PATH_WALK walk, ZOV_BOOL *isDirectory);

/**
 * zov_pathNext() with a wide name.
 *
 * @return the name, or null as zov_pathNext(), and with EILSEQ in errno for a
 *         name that is not UTF-8: the walk can go on behind it. The latest name
 *         that was returned belongs to the walk, also after a null; each one
 *         before it to the caller, to be released with zov_freeMem() on the
 *         default tag.
 *
 * Threads and messages: as zov_pathNext().
 */
ZOV_API wchar_t *zov_pathNextW(ZOV_PATH_WALK walk, ZOV_BOOL *isDirectory);

/** Ends a walk and releases the names it owns; null is ignored. Threads: one at
 *  a time. */
ZOV_API void zov_pathClose(ZOV_PATH_WALK walk);

/**
 * Makes up the path of a temporary file in zov_tmpdir(), or without a directory
 * when there is none or its name is empty. The address and the value of the counter
 * and the process id keep names apart; whether such a file exists is not looked at.
 *
 * @param counter   the caller's counter, which is advanced by 1
 * @param prefix    what the name begins with; null: "temp"
 * @param extension what follows its dot; null: "tmp"
 * @param tag       tag of the path, 0 for the default one
 * @return the path, released with zov_freeMem() on that tag; null when memory is
 *         short or the library not started.
 *
 * Threads: any, each with a counter of its own. Messages: those of failing
 * allocations. May jump.
 */
ZOV_API char *zov_fileCreateTmpName(uint32_t *counter, const char *prefix, const char *extension,
                                    ZOV_TAG tag);
/** @} */

/* ======================================================================== */
/**
 * @defgroup zov_paths Paths
 * What can be told of a path, most of it without asking the system. (files/zovfile_path)
 * @{
 */

/** Answer of zov_pathIsDir() for no path at all. */
#define ZOV_PATH_EMPTY UINT32_MAX

/**
 * Tells the current directory, "/" under the diskless flag.
 *
 * @return the path, without a slash at its end unless it is the root, in
 *         memory of the caller; null when the system does not say or memory is
 *         short (errno says why), and when the library is not started.
 *
 * Cost: one system call and one growth for every 10 bytes of it.
 * Messages, may jump: as zov_getMem() on the default tag.
 */
ZOV_API char *zov_currdir(void);

/**
 * Asks whether a path begins at the root.
 * @param path path
 * @return 1 or 0.
 * May be called at any time.
 */
ZOV_API ZOV_BOOL zov_pathIsFullyQualified(const char *path);

/**
 * Makes a path absolute, as a directory: the result ends in a slash even when
 * the path names a file. Dots and double slashes stay as they are.
 *
 * @param path path; null, "", "." and "./" mean the current directory
 * @return the absolute path, in memory of the caller, or null, as
 *         zov_currdir().
 *
 * Messages, may jump: as zov_getMem() on the default tag.
 */
ZOV_API char *zov_fullpath(const char *path);

/**
 * Splits a path at its last slash.
 *
 * @param path      path
 * @param directory gets everything up to the slash and with it, null when there
 *                  is none; or null
 * @param name      gets what follows the slash, null when nothing does; or null
 *
 * Both are in memory of the caller. One for which memory is short is null too,
 * and all are when the library is not started.
 *
 * Messages, may jump: as zov_getMem() on the default tag; both are
 * null then.
 */
ZOV_API void zov_pathSplit(const char *path, char **directory, char **name);

/**
 * Asks whether a path is written as a directory, with a slash at its end.
 * @param path path, or null
 * @return 1 or 0; #ZOV_PATH_EMPTY for a null or empty path.
 * May be called at any time.
 */
ZOV_API uint32_t zov_pathIsDir(const char *path);

/**
 * Skips the drive of a path. There are none on this platform.
 * @param path path
 * @return the path itself.
 * May be called at any time.
 */
ZOV_API const char *zov_pathStripDrive(const char *path);

/**
 * Asks whether a path itself is a symbolic link, which may lead nowhere.
 * @param path path
 * @return 1, or 0 also when there is nothing of that name.
 * May be called at any time.
 */
ZOV_API ZOV_BOOL zov_pathIsLink(const char *path);
/** @} */

/* ======================================================================== */
/**
 * @defgroup zov_unicode UTF-8 and wide strings
 * Conversion between the two, into memory of the caller or of its own. (files/zovutf8)
 *
 * UTF-8 is that of RFC 3629. Pure functions but for the three that allocate:
 * any thread, at any time.
 * @{
 */

/** Error mode of a conversion: the first invalid unit fails it. Any value but
 *  #ZOV_UTF8_REPLACE means this. */
#define ZOV_UTF8_STRICT 0u
/** Error mode of a conversion: every invalid unit becomes one `?`. */
#define ZOV_UTF8_REPLACE 1u

/** What a failed conversion returns. */
#define ZOV_UTF8_FAILED UINT32_MAX

/**
 * Encodes one code point as UTF-8. A surrogate is encoded like any other value
 * of three bytes; no terminator is stored.
 *
 * @param codePoint   the code point
 * @param out         place for at least 4 bytes, or null
 * @param lengthBytes place for the length, 1 to 4, or null. A value above
 *                    0x10FFFF has the length 0 and stores nothing.
 */
ZOV_API void zov_utf8_codes(uint32_t codePoint, char *out, uint32_t *lengthBytes);

/**
 * Converts a wide string to UTF-8. Surrogates and values above 0x10FFFF are
 * the invalid units. A result that does not fit is cut behind the last whole
 * character that does; invalid units behind the cut do not matter.
 *
 * @param out       place for the result, always terminated; null to measure it
 * @param text      the wide string
 * @param sizeBytes room at out in bytes. With 0 nothing bounds the result and it
 *                  is not terminated: the caller answers for the room.
 * @param errorMode #ZOV_UTF8_STRICT or #ZOV_UTF8_REPLACE
 * @return bytes of the result, the terminator among them, or #ZOV_UTF8_FAILED
 *         for an invalid unit in the strict mode and for a result of 4 GiB less
 *         a byte, or more.
 *
 * Cost: no allocation; on processors that have vectors ASCII converts 16
 * characters at a time, and other text four where there is a byte shuffle too.
 */
ZOV_API uint32_t zov_wchar_to_utf8(char *out, const wchar_t *text, uint32_t sizeBytes,
                                   uint32_t errorMode);

/**
 * zov_wchar_to_utf8() for a number of characters, zeros among them, each of
 * which becomes a zero byte. The result is terminated all the same.
 *
 * @param lengthChars characters to convert
 */
ZOV_API uint32_t zov_wchar_to_utf8_len(char *out, uint32_t sizeBytes, const wchar_t *text,
                                       uint32_t lengthChars, uint32_t errorMode);

/**
 * Converts a wide string to UTF-8 in memory of its own.
 *
 * @param text      the wide string; null gives null
 * @param errorMode #ZOV_UTF8_STRICT or #ZOV_UTF8_REPLACE
 * @return the string, to be released with zov_freeMem() on the default tag; null
 *         when an invalid unit was refused or the result is too long, with EILSEQ
 *         in errno, or when memory is short.
 *
 * Threads: any, while the library is started.
 * Messages: that of a failed allocation.
 * May jump: when memory is short.
 */
ZOV_API char *zov_convertToUTF8(const wchar_t *text, uint32_t errorMode);

/**
 * Converts UTF-8 to a wide string. Every byte of a broken sequence is an
 * invalid unit: stray continuation bytes, sequences longer than their value
 * needs, surrogates, values above 0x10FFFF, U+FFFE and U+FFFF. A byte that
 * should have continued a sequence is part of the broken sequence and never
 * begins a new character.
 *
 * A result that does not fit is cut. The text behind the cut is still
 * examined, and fails the conversion in the strict mode where it is invalid.
 * A sequence still open at the end of the text counts one unit for each of its
 * bytes; if these do not all fit the conversion fails.
 *
 * @param out       place for the result, always terminated; null to measure it
 * @param text      the UTF-8 string
 * @param sizeChars room at out in wide characters. With 0 nothing bounds the
 *                  result and it is not terminated: the caller answers for the
 *                  room.
 * @param errorMode #ZOV_UTF8_STRICT or #ZOV_UTF8_REPLACE
 * @return characters of the result, the terminator among them, or
 *         #ZOV_UTF8_FAILED as said above and for a result of 2^32 - 1 characters
 *         or more.
 */
ZOV_API uint32_t zov_utf8_to_wchar(wchar_t *out, const char *text, uint32_t sizeChars,
                                   uint32_t errorMode);

/**
 * zov_utf8_to_wchar() for a number of bytes, zeros among them, each of which
 * becomes a zero character where it does not break a sequence.
 *
 * @param lengthBytes bytes to convert
 */
ZOV_API uint32_t zov_utf8_to_wchar_len(wchar_t *out, uint32_t sizeChars, const char *text,
                                       uint32_t lengthBytes, uint32_t errorMode);

/**
 * Converts UTF-8 to a wide string in memory of its own; otherwise as
 * zov_convertToUTF8().
 *
 * @param text the UTF-8 string; null gives null
 */
ZOV_API wchar_t *zov_convertToWchar(const char *text, uint32_t errorMode);

/**
 * Converts an argument list to UTF-8 in the strict mode.
 *
 * @param count     number of arguments
 * @param arguments the wide strings; null ones stay null
 * @param out       place for the array of as many strings, null on failure. The
 *                  strings and the array are each to be released with
 *                  zov_freeMem() on the default tag.
 * @return #ZOV_OKAY, or #ZOV_ERROR when an argument is invalid, memory is short
 *         or count is negative.
 *
 * Threads: any, while the library is started.
 * Messages: that of a failed allocation.
 * May jump: when memory is short; nothing stays allocated then.
 */
ZOV_API ZOV_STATUS zov_convertArgvToUTF8(int32_t count, wchar_t *const *arguments, char ***out);
/** @} */

/* ======================================================================== */
/**
 * @defgroup zov_wildcards Wildcard matching
 * The patterns of all walks through directories. (files/zovfile_match)
 * @{
 */

/**
 * Tells whether a file name matches a pattern. `?` stands for any one
 * character, `*` for any number of them; every other character stands for
 * itself in either case, by libc's case table for single bytes.
 *
 * The character that follows a `*` always stands for itself, also when it is
 * `?` or `*`: the pattern `*?` matches the names that end in a question mark.
 * A `*` at the end matches every rest, also none. The empty pattern matches the
 * empty name only.
 *
 * @param name    the name
 * @param pattern the pattern
 * @return 1 when the name matches, else 0.
 *
 * May be called at any time. Cost: no recursion; at most the
 * length of the name times that of the pattern.
 */
ZOV_API ZOV_BOOL zov_match(const char *name, const char *pattern);
/** @} */

/* ======================================================================== */
/**
 * @defgroup zov_memfiles Files in memory
 * The file system in the process's memory, which #ZOV_FILE_MEMORY leads to; these are its own
 * calls, without handles of @ref zov_files. (memstore/zovmfile)
 *
 * Files in memory live in a tree of directories of their own, from a root "/"
 * that no disk shares. They last until they are removed or the library is shut
 * down. Names are bytes, compared with the ASCII letters' case ignored, and kept
 * as they were given. Of a file's path the directory part is made absolute and
 * normalised, a backslash counting as a slash; the last component is a name as it
 * stands, other than "." and "..". A path without a slash names no file. The path of
 * a directory is normalised but not made absolute: it counts from "/".
 *
 * How they differ from files on disk:
 *
 * | on disk              | in memory                                                            |
 * |----------------------|----------------------------------------------------------------------|
 * | missing directories  | made wherever a path leads through them, even if only asked for      |
 * | renaming             | stays in its directory; the new path's last component counts         |
 * | seeking past the end | refused; writing there is not                                        |
 * | `O_APPEND`, `O_EXCL` | ignored: the position starts at 0; an open makes a file or finds one |
 * | access modes         | ignored: every open file reads and writes                            |
 * | directories          | cannot be removed                                                    |
 *
 * Memory is the limit of how many there are. An empty file takes about 300 bytes, a
 * directory as much until something is stored in it and some 10 KB from then on. A
 * sync object is for each file that is open and each directory with something in it.
 *
 * A file has one lock for all who have it open: transfers and closing take it, and
 * zov_mfLock() holds it. Two threads that each hold one file's lock and close a
 * handle of the other's file, truncate it or use it wait for each other for ever:
 * hold one file's lock at most, or take them in one order.
 * @{
 */

/** An open file in memory. */
typedef struct ZOV_CAPABILITY("mutex") MemFile *ZOV_MFILE;

/** A walk through a directory in memory. */
typedef struct MemWalk *ZOV_MEM_WALK;

/**
 * Opens a file in memory.
 *
 * @param path  its path
 * @param flags open flags: `O_CREAT` makes a missing file, `O_TRUNC` empties it;
 *              others are ignored
 * @return the file at position 0, to be closed with zov_mfClose(), or null, with
 *         errno set: no such file (`ENOENT`), a directory (`EISDIR`), a file where
 *         the path needs a directory (`ENOTDIR`), a name of more than 65,535 bytes
 *         (`ENAMETOOLONG`), a path without a slash (`EINVAL`), memory is short
 *         (`ENOMEM`), or there are no sync objects left (`ENFILE`).
 *
 * Threads: any; with `O_TRUNC` waits for the file's lock. Cost: a look-up for each
 * component of the path, under the lock of one directory at a time.
 * Messages: those of a failing allocation or zov_syncCreate_check().
 */
ZOV_API ZOV_MFILE zov_mfOpen(const char *path, uint32_t flags);

/** Closes a file; null is ignored. Threads: one at a time on a handle; waits for the
 *  file's lock. */
ZOV_API void zov_mfClose(ZOV_MFILE file);

/**
 * Sets the position of a file.
 *
 * @param file   the file
 * @param offset bytes from the place that whence names; to go back from it, two's
 *               complement
 * @param whence 0 the beginning, 1 the position, 2 the end
 * @return #ZOV_OKAY, or #ZOV_ERROR with the position as it was: past the end, or
 *         no such whence, or no file.
 *
 * Threads: one at a time on a handle.
 */
ZOV_API ZOV_STATUS zov_mfSeek(ZOV_MFILE file, uint64_t offset, int32_t whence);

/** Reads length bytes into buffer at the position, which moves behind what was read.
 *  @return as zov_segSeekRead(); 0 for no file. Messages: as there. Threads: one at a
 *  time on a handle. */
ZOV_API uint32_t zov_mfRead(ZOV_MFILE file, void *buffer, uint32_t length);

/** Writes length bytes of buffer at the position, which moves behind what was written.
 *  @return as zov_segSeekWrite(); 0 for no file. Messages: as there. Threads: one at a
 *  time on a handle. */
ZOV_API uint32_t zov_mfWrite(ZOV_MFILE file, const void *buffer, uint32_t length);

/** Reads length bytes into buffer at an offset in bytes and leaves the position alone.
 *  @return as zov_segSeekRead(); 0 for no file. Messages: as there. */
ZOV_API uint32_t zov_mfSeekRead(ZOV_MFILE file, uint64_t offset, void *buffer, uint32_t length);

/** Writes length bytes of buffer at an offset in bytes and leaves the position alone.
 *  @return as zov_segSeekWrite(); 0 for no file. Messages: as there. */
ZOV_API uint32_t zov_mfSeekWrite(ZOV_MFILE file, uint64_t offset, const void *buffer,
                                 uint32_t length);

/** Enters the lock of a file, recursive and shared by all who have the file
 *  open; waits while another thread is inside, be it for a transfer or a close.
 *  @return #ZOV_OKAY, always. */
ZOV_API ZOV_STATUS zov_mfLock(ZOV_MFILE file) ZOV_ACQUIRE(file);

/** Leaves the lock of a file. @return #ZOV_OKAY, always. Threads: the one inside. */
ZOV_API ZOV_STATUS zov_mfUnlock(ZOV_MFILE file) ZOV_RELEASE(file);

/** Tells the size of a file. @return bytes; 0 for no file. Takes no lock. */
ZOV_API uint64_t zov_mfSize(ZOV_MFILE file);

/** Sets the size of a file, under its lock. @return as zov_segSetSize(), but a
 *  failure leaves no segment that was not there before; #ZOV_ERROR for no file.
 *  Threads: one at a time on a handle. Messages: as there. */
ZOV_API ZOV_STATUS zov_mfSetSize(ZOV_MFILE file, uint64_t size);

/** Tells the size of a file without opening it. @return bytes; 0 when the path names no
 *  file, for a directory, and when memory is short. Messages: as zov_mfOpen(). */
ZOV_API uint64_t zov_mfSizeStat(const char *path);

/** Tells when a file was last written to. @return seconds since the epoch; 0 when it
 *  never was, and as zov_mfSizeStat(). Messages: as zov_mfOpen(). */
ZOV_API uint64_t zov_mfModTime(const char *path);

/**
 * Removes a file. Who has it open keeps it; its memory goes with the last close.
 * @return #ZOV_OKAY; #ZOV_NOTFOUND; #ZOV_ERROR for a directory, a path that cannot
 *         be resolved, or when memory is short.
 * Messages: as zov_mfOpen().
 */
ZOV_API ZOV_STATUS zov_mfRemove(const char *path);

/**
 * Renames a file or a directory within its directory.
 *
 * @param oldPath its path
 * @param newPath the new name: what follows the last slash, or all of it
 * @return #ZOV_OKAY; #ZOV_NOTFOUND for a missing file; #ZOV_ERROR, with nothing
 *         changed and errno set, when the new name is taken, empty, ".", "..", holds
 *         a backslash or is longer than 65,535 bytes, or memory is short.
 *
 * Messages: as zov_mfOpen().
 */
ZOV_API ZOV_STATUS zov_mfRename(const char *oldPath, const char *newPath);

/**
 * Tells whether a path names a directory or a file.
 *
 * @param path        the path; a relative one that ".." leads out of names
 *                    nothing here
 * @param isDirectory place for 1 when it names a directory and 0 when it names a
 *                    file, untouched when neither; or null
 * @return 1 when there is something of that name; 0 when not, and when memory is
 *         short (errno is `ENOMEM`).
 *
 * Messages: as zov_mfOpen().
 */
ZOV_API ZOV_BOOL zov_mfValidate(const char *path, ZOV_BOOL *isDirectory);

/**
 * Begins a walk through the names in a directory.
 *
 * @param directory the directory's path
 * @param pattern   what the names must match, as by zov_match()
 * @return the walk, to be ended with zov_mfPathClose(), or null, with errno set: no
 *         such directory, or memory is short.
 *
 * Messages: as zov_mfOpen().
 */
ZOV_API ZOV_MEM_WALK zov_mfPathOpen(const char *directory, const char *pattern);

/**
 * Steps a walk to its next name, in the order of names. The directory may change
 * between the steps: the walk goes on behind the name that it gave last.
 *
 * @param walk        the walk
 * @param isDirectory gets 1 for a directory, 0 for a file; untouched at the end
 * @return the name, which the walk owns until the next step, or null at the end,
 *         and when memory is short: errno is then `ENOMEM`, at the end it stays as it
 *         was, and the step can be repeated.
 *
 * Threads: one at a time on a walk. Messages: that of a failing allocation.
 */
ZOV_API const char *zov_mfPathNext(ZOV_MEM_WALK walk, ZOV_BOOL *isDirectory);

/** Ends a walk; null is ignored. Threads: one at a time on a walk. */
ZOV_API void zov_mfPathClose(ZOV_MEM_WALK walk);
/** @} */

/* ======================================================================== */
/**
 * @defgroup zov_format Formatted text
 * What printf() is elsewhere, the same under every libc. (text/zov_vsnprintf)
 * @{
 */

/**
 * Formats text into a buffer of a given size, in the manner of vsnprintf().
 *
 * A directive is "%", then in this order flags (any of ``-+ #0'``), a width, "."
 * and a precision, a length modifier (hh h l ll z t j L), and one of the
 * letters d i u o x X c s p n f F e E g G a A %. The differences from C's own
 * grammar:
 *
 * - A width or precision above 2147483647 in digits, or a width of -2147483648
 *   by "*", fails the call. There are no positional arguments.
 * - An unknown letter prints nothing and takes no argument. A format that ends
 *   within a directive drops it.
 * - %c ignores its width, %ls and %lc are %s and %c, and %% takes any flags.
 * - A null %s prints "(null)", or nothing with a precision below 6. A null %p
 *   prints "(nil)".
 * - The integer letters with L take no argument and print 0; %n with L does
 *   nothing.
 * - The ' flag separates all groups of three digits, whatever the locale says
 *   of grouping. Separators count against the precision of an integer.
 * - `%#o` counts its prefix among the digits of the precision.
 * - %a and %A are %f and %F.
 * - Floating point is computed with mantissas of 64 bits and rounded half up, also
 *   where fesetround() asks for another way; only the last of many digits may
 *   differ then. At most 19 digits are behind the point, also with a higher
 *   precision. Of random doubles, ties apart, the 17th digit is wrong by one in up to
 *   0.6 %, the 16th in up to 0.07 %. What %.16e prints of a double strtod() reads
 *   back as the same; what %.17g prints too, but between 1e-4 and 1e-3, where
 *   nearly half of the values need more digits than there are. A long double reads
 *   back from no format: its 17th digit is wrong in up to 2.4 %, the 15th in
 *   0.02 %.
 * - A value to be printed without an exponent fails the call when its integer
 *   part is 18446744073709551615 or more.
 * - Negative zero and NaN print no "-"; %e and %g keep the last three digits of
 *   an exponent, which leaves a long double beyond 1e999 or below 1e-999 with a
 *   wrong one. Of denormal long doubles, those near 1e-4940 and below have few
 *   digits right and may print 10 before the point or fail the call.
 *
 * The decimal point and the separators are those of the C locale in force, as
 * localeconv() tells.
 *
 * @param buffer    where the text goes, always terminated; null writes nothing
 * @param sizeBytes size of buffer; with 0 nothing is written
 * @param format    the format
 * @param arguments the arguments, left as they are: a copy is consumed
 * @return the length of the whole text in bytes without its terminator, however
 *         much of it did fit; -1 when it is 2147483647 or more or a directive
 *         failed, with what was printed before that in the buffer.
 *
 * May be called at any time, before zov_init() too. Threads
 * whose own locales (uselocale()) have different separators must not print
 * numbers with a point or separators at once, since localeconv() has one
 * result for all.
 * Cost: no lock, no allocation. What does not fit is counted, not produced.
 */
ZOV_API int32_t zov_vsnprintf(char *buffer, uint64_t sizeBytes, const char *format,
                              va_list arguments) ZOV_PRINTF(3, 0);

/** zov_vsnprintf() with the arguments in the call. */
ZOV_API int32_t zov_snprintf(char *buffer, uint64_t sizeBytes, const char *format, ...)
    ZOV_PRINTF(3, 4);

/**
 * Formats text as zov_vsnprintf() does, into a block of just the size it needs.
 *
 * @param sourceName caller's source name
 * @param line       caller's line
 * @param tag        the tag to allocate from, 0 for the default one
 * @param format     the format
 * @param arguments  the arguments, left as they are
 * @return the text, to be released with zov_freeMem() on the same tag, or null
 *         when zov_vsnprintf() would fail or memory is short.
 *
 * Threads: any when the tag is thread-safe, else its own thread.
 * Cost: text of up to 255 bytes is produced once and copied, longer text is
 * produced twice.
 * Messages: "Out of memory. Called from %s:%u" with the caller's place.
 * May jump: to the recovery point of the tag, when memory is short.
 */
ZOV_API char *zov_makeStrV(const char *sourceName, uint32_t line, ZOV_TAG tag, const char *format,
                           va_list arguments) ZOV_PRINTF(4, 0);

/** zov_makeStrV() with the arguments in the call. */
ZOV_API char *zov_makeStrVA(const char *sourceName, uint32_t line, ZOV_TAG tag, const char *format,
                            ...) ZOV_PRINTF(4, 5);
/** @} */

/* ======================================================================== */
/**
 * @defgroup zov_streams Text streams
 * Buffered text files. Callers read and write UTF-8 bytes whatever the file
 * holds: bytes, or UTF-16 in the byte order of the machine, which a mark at
 * the start of the file tells. A stream reads or writes its file from the
 * start to the end through one block of 1024 bytes and never positions it.
 *
 * What is written waits in the block until it is full, zov_fflush(),
 * zov_fclose(), or a seek out of it that is followed by a transfer. A call whose
 * transfer fails leaves errno as that set it; what the file did not take stays
 * in the block and is sent again. Under the read-only flag (zov_rdonly()) a
 * stream on a disk file that was open before takes what it is given, and drops
 * it with what was waiting, with every sign of success.
 *
 * Threads: one at a time on a stream, which has no lock. Not for signal handlers. What it holds at
 * a fork is the child's as well: flush before, or leave the child by `_exit()`. (text/zov_stream)
 * @{
 */

/** An open text stream. */
typedef struct TextStream *ZOV_STREAM;

/** Encodings of a text file. */
enum zov_encoding {
  ZOV_ENC_BYTES = 1, /**< single bytes, UTF-8 or any other byte encoding */
  ZOV_ENC_UTF16 = 2  /**< UTF-16 in the byte order of the machine */
};

/**
 * Opens a text stream.
 *
 * A stream that is not opened with `w` or `a` takes its encoding from the
 * file: EF BB BF means bytes; FF FE, FE FF and EF FF mean UTF-16, in host byte
 * order all three; anything else means bytes. The text starts behind the mark.
 * Only a file of the single byte EF, FE or FF leaves the encoding as passed.
 * A UTF-16 stream opened with `w` or `a` starts by writing the mark FEFF.
 *
 * @param name     path of the file; "stdin", "stdout" and "stderr" name the
 *                 standard streams
 * @param mode     up to three letters, the rest is ignored: `r` reads, and what
 *                 is written is refused; `w` writes, creates and truncates; `a`
 *                 writes, creates and appends: each transfer goes to the end
 *                 of the file, on disk and in memory, and the stream starts
 *                 there; `+` behind them adds the other direction, and a stream
 *                 of `a+` starts at the start. No other letter is allowed, `b`
 *                 and `t` included. Null or empty reads.
 * @param encoding one of ::zov_encoding, or 0: what the file says, and bytes
 *                 for a stream opened with `w` or `a`. With any other encoding
 *                 such a stream refuses every byte, and a stream left without
 *                 one of the two reads zeros for ever.
 * @return the stream, to be released with zov_fclose(), or null with errno:
 *         EINVAL for a null name, a bad mode or a library that is not started,
 *         ENOMEM, or what zov_fileOpen() leaves there.
 *
 * The descriptor is not inherited by programs that are executed.
 *
 * Messages, may jump: as zov_fileOpen() and, on the default tag, zov_getMem();
 * those of zov_fileRead() when a mark is looked for.
 */
ZOV_API ZOV_STREAM zov_fopen(const char *name, const char *mode, int32_t encoding);

/**
 * zov_fopen() for a file of a given type.
 * @param options the type flags of zov_fileOpen(); the low 16 bits count
 */
ZOV_API ZOV_STREAM zov_fopenEx(const char *name, const char *mode, int32_t encoding,
                               uint32_t options);

/**
 * Opens one of the standard streams as a byte stream, without looking for a
 * mark and without asking for its length.
 * @param name "stdin", which can be read, or "stdout" or "stderr", which can be
 *             written
 * @return the stream, or null with errno. Messages, may jump: as zov_fopen().
 */
ZOV_API ZOV_STREAM zov_fopen_std(const char *name);

/**
 * Sends what is left in the stream's block, closes the file and releases the
 * stream, whatever fails. errno is then as the first failure left it, and
 * untouched when nothing failed: a caller who sets it to 0 before can tell. The
 * descriptor of a standard stream stays open.
 * Messages: those of zov_fileWrite() and zov_fileClose().
 */
ZOV_API void zov_fclose(ZOV_STREAM stream);

/**
 * Reads one byte. Of a UTF-16 file: a unit is decoded when the first byte of
 * its UTF-8 form is asked for; a low surrogate that follows no high one reads
 * as a full stop; whatever follows a high one counts as its low half.
 *
 * @return the value pushed back last, if any, else the next byte, 0 to 255; -1
 *         at the end of the file and when the file cannot be read.
 *
 * Cost: a few instructions, and one transfer of 1024 bytes for as many of the
 * file. Messages: those of zov_fileRead(), and of zov_fileWrite() when bytes
 * written are still to be sent.
 */
ZOV_API int32_t zov_fgetc(ZOV_STREAM stream);

/**
 * Pushes a value back, to be read next. A stream holds 20 such values; those
 * of a UTF-16 character that are still to be read, up to three, count. A seek
 * does not discard them.
 *
 * @param value what zov_fgetc() shall return
 * @return the value, or -1 when the stream holds 20 already.
 */
ZOV_API int32_t zov_fungetc(int32_t value, ZOV_STREAM stream);

/**
 * Reads a line, or what of it fits: up to and with the next newline.
 *
 * @param buffer    place for the bytes and a terminator
 * @param sizeBytes its size; with 1 nothing is read and the result is empty
 * @return buffer; null for a null buffer, a size below 1, and at the end of the
 *         file, when the buffer is as it was.
 *
 * Cost: of a byte stream, one search and one copy for each block that the line
 * touches. Messages: as zov_fgetc().
 */
ZOV_API char *zov_fgets(char *buffer, int32_t sizeBytes, ZOV_STREAM stream);

/**
 * Writes one byte. A UTF-16 stream gathers the bytes of a character and writes
 * it when the last one arrives. The first byte must be one that UTF-8 allows
 * there and the others must be continuation bytes; a byte that is neither is
 * refused, and an unfinished character goes on waiting. A character for which
 * no room can be made is refused as a whole.
 *
 * @param character the byte, of which the low 8 bits count
 * @return 1 when the byte was taken; 0 when it was refused or could not be
 *         written: errno tells of the transfer that failed, EBADF of a stream
 *         that only reads, EINVAL of a position before the start of the file.
 *         On a UTF-16 stream also 0 when the byte completed a character,
 *         although that was written; errno is then untouched.
 *
 * Messages: those of zov_fileWrite(), and of zov_fileRead() on a stream of both
 * directions.
 */
ZOV_API int32_t zov_fputc(int32_t character, ZOV_STREAM stream);

/**
 * Writes a text as zov_fputc() writes each byte, up to the first for which
 * that is not 1. On a UTF-16 stream this is the end of the first character.
 *
 * @return the number of bytes, or -1 when a byte was not taken.
 *
 * Cost: of a byte stream, one copy, and one transfer for each 1024 bytes.
 * Messages: as zov_fputc().
 */
ZOV_API int32_t zov_fputs(const char *text, ZOV_STREAM stream);

/**
 * Formats as zov_vsnprintf() does and writes the text as zov_fputs() does. The
 * buffer for the text is the stream's, and only grows. The arguments are left as
 * they were.
 *
 * @return the number of bytes written; 0 for an empty text; -1 when the text
 *         cannot be formatted, memory is short, or a byte was not taken.
 *
 * Messages: as zov_fputc() and zov_getMem(). May jump: when the buffer cannot
 * grow. Nothing has been written then.
 */
ZOV_API int32_t zov_vfprintf(ZOV_STREAM stream, const char *format, va_list arguments)
    ZOV_PRINTF(2, 0);

/** zov_vfprintf() with the arguments in place. */
ZOV_API int32_t zov_fprintf(ZOV_STREAM stream, const char *format, ...) ZOV_PRINTF(2, 3);

/**
 * Sends what was written to the file and the file to disk, see zov_fileSync().
 *
 * @return -1 when that worked while a UTF-16 stream waits for the rest of a
 *         character; else 0, also when it did not work. errno is then as the
 *         failing transfer or sync left it, and untouched otherwise, also where
 *         there is nothing to sync, as on a pipe: a caller who sets it to 0
 *         before can notice a full disk.
 *
 * Messages: those of zov_fileWrite().
 */
ZOV_API int32_t zov_fflush(ZOV_STREAM stream);

/**
 * Moves the stream to an offset in bytes of the file. Within the block of 1024
 * bytes at hand this goes both ways: when the block is sent next, what lies in
 * front of the stream's place in it goes to the file, with zeros where nothing
 * was read or written, and what was written behind is dropped. Outside of the
 * block the next transfer sends what was written and goes on where the file
 * stands, which a seek does not change; a stream shall thus be read, or written,
 * from its start to its end. An offset before the start of the file is taken,
 * and every write there refused.
 *
 * @param offset bytes
 * @param origin 0: offset counts from behind the mark; 1: from where the stream
 *               is; 2: from the end the file had when opened, or has got by
 *               writing to this stream
 * @return #ZOV_OKAY, or #ZOV_ERROR for another origin.
 */
ZOV_API ZOV_STATUS zov_fseek(ZOV_STREAM stream, int32_t offset, int32_t origin);

/**
 * Reads a whole line of any length, up to and with its newline. Bytes of 0 in
 * it do not end it.
 *
 * @param stream    the stream
 * @param buffer    points at a block of the default tag, which may move, or at
 *                  null: a block of 100 bytes is then made
 * @param sizeBytes points at the size of the block; a size of 0 stands for 100,
 *                  and with a null block the size does not matter
 * @return the block, also left in *buffer with its size in *sizeBytes, to be
 *         released with zov_freeMem(); null for a null argument, at the end of
 *         the file, for a stream without one of the two encodings, and when no
 *         block can be made. Whatever is returned, *buffer and *sizeBytes tell
 *         what the caller owns.
 *
 * Cost: as zov_fgets(); the block grows by 100 bytes at a time, and once when
 * the last line has no newline.
 * Messages: as zov_fgetc() and zov_getMem().
 * May jump: when the block cannot be made or cannot grow; what was read of the
 * line is in *buffer then. Where it does not jump, a block that cannot grow
 * ends the line early, and the next call goes on behind it.
 */
ZOV_API char *zov_fGetLine(ZOV_STREAM stream, char **buffer, uint32_t *sizeBytes);
/** @} */

/* ======================================================================== */
/**
 * @defgroup zov_output Console and log
 * Where the library's and the program's output goes: redirections that stack, messages with
 * their time in a log, and records put together piece by piece. (text/zov_console, text/zov_log)
 * @{
 */

/** One destination of a stack. */
typedef struct ZOV_FILE_INFO {
  char *name;        /**< the file's name, null for a silent entry */
  ZOV_STREAM stream; /**< null for a silent entry */
  int32_t users;     /**< redirections of this stack that lead here */
} ZOV_FILE_INFO;

/** One redirection of a stack. */
typedef struct ZOV_FILE_STACK_NODE {
  ZOV_FILE_INFO *info;              /**< where it leads */
  struct ZOV_FILE_STACK_NODE *next; /**< the redirection below */
} ZOV_FILE_STACK_NODE;

/** A pile of redirections, of which the top one receives the output. The
 *  library keeps three: standard output, standard error and the log. */
typedef struct ZOV_FILE_STACK {
  ZOV_SYNC lock;            /**< guards output through the stack */
  ZOV_FILE_STACK_NODE *top; /**< null when empty, which is as good as silent */
} ZOV_FILE_STACK;

/** A log record that is put together piece by piece. */
typedef struct LogChunk *ZOV_LOG_CHUNK;

/**
 * Sets up a stack.
 *
 * @param stack the record to fill
 * @param name  destination to push, or null for a stack that starts empty
 * @return #ZOV_OKAY, to be undone with zov_fileStackTerm(); otherwise
 *         #ZOV_ERROR or #ZOV_NOMEMORY, when nothing is owed.
 *
 * Threads: one at a time. Messages: those of failing allocations and of
 * zov_syncCreate_check().
 */
ZOV_API ZOV_STATUS zov_fileStackInit(ZOV_FILE_STACK *stack, const char *name);

/** Pops every redirection of a stack and releases its lock. Threads: one at a
 *  time, while nobody writes through the stack. Messages: as zov_fclose(). */
ZOV_API void zov_fileStackTerm(ZOV_FILE_STACK *stack);

/**
 * Pushes a redirection. A file that the stack leads to already (by a name that
 * is equal but for case) is shared; any other is opened for writing as bytes,
 * which empties it.
 *
 * @param stack the stack
 * @param name  the file, "stdout" or "stderr"; null or empty silences the stack
 * @return #ZOV_OKAY, to be undone with zov_fileStackClose(); #ZOV_NOMEMORY; or
 *         #ZOV_ERROR when the file cannot be opened. A failure pushes nothing.
 *
 * Threads: one at a time, while nobody writes through the stack: its lock is
 * not taken. Messages: those of failing allocations.
 */
ZOV_API ZOV_STATUS zov_fileStackOpen(ZOV_FILE_STACK *stack, const char *name);

/** Pops the top redirection, if any, and closes its file with the last that
 *  leads to it. Threads: as zov_fileStackOpen(). Messages: as zov_fclose(). */
ZOV_API void zov_fileStackClose(ZOV_FILE_STACK *stack);

/**
 * Finds a destination of a stack, newest first.
 *
 * @param stack the stack
 * @param name  a name, compared without regard to case, or null for a silent
 *              entry
 * @return the destination, which the stack owns, or null.
 *
 * Threads: as zov_fileStackOpen().
 */
ZOV_API ZOV_FILE_INFO *zov_fileStackSearch(ZOV_FILE_STACK *stack, const char *name);

/**
 * Gives a redirection its destination, an existing one of the stack or a newly
 * opened one, and counts no user. The worker behind zov_fileStackOpen().
 *
 * @param stack the stack
 * @param name  as in zov_fileStackOpen()
 * @param node  the redirection; its info is set, to null on failure
 * @return as zov_fileStackOpen().
 *
 * Threads and messages: as zov_fileStackOpen().
 */
ZOV_API ZOV_STATUS zov_getFileInfo(ZOV_FILE_STACK *stack, const char *name,
                                   ZOV_FILE_STACK_NODE *node);

/** Enters a stack's lock, which is recursive. Threads: any; waits while another is inside. */
ZOV_API void zov_fileStackLock(ZOV_FILE_STACK *stack) ZOV_ACQUIRE(stack->lock);

/** Leaves a stack's lock. Threads: the one that entered. */
ZOV_API void zov_fileStackRelease(ZOV_FILE_STACK *stack) ZOV_RELEASE(stack->lock);

/**
 * Redirects the library's standard output, on top of what it is now.
 * @param name as in zov_fileStackOpen()
 * @return as zov_fileStackOpen(); #ZOV_ERROR when the library is not started.
 * Threads and messages: as zov_fileStackOpen().
 */
ZOV_API ZOV_STATUS zov_stdout_open(const char *name);

/** Redirects standard error, as zov_stdout_open() does standard output. */
ZOV_API ZOV_STATUS zov_stderr_open(const char *name);

/** Takes back the last zov_stdout_open(), or the library's own destination.
 *  Does nothing when the library is not started. Threads and messages: as
 *  zov_fileStackClose(). */
ZOV_API void zov_stdout_close(void);

/** Takes back the last zov_stderr_open(), as zov_stdout_close() does. */
ZOV_API void zov_stderr_close(void);

/** Writes the log to a file from now on, as zov_stdout_open() does standard
 *  output. Nothing is logged to a file before the first call. */
ZOV_API ZOV_STATUS zov_log_open(const char *name);

/** Takes back the last zov_log_open(), as zov_stdout_close() does. */
ZOV_API void zov_log_close(void);

/**
 * Opens a log whose name is given in two parts, put together as they are.
 *
 * @param directory first part, with its separator
 * @param file      second part
 * @return #ZOV_OKAY, also when the file cannot be opened; #ZOV_ERROR when the
 *         name cannot be put together.
 *
 * Threads and messages: as zov_fileStackOpen(). May jump: while the name is
 * allocated, before anything else.
 */
ZOV_API ZOV_STATUS zov_log_create(const char *directory, const char *file);

/**
 * Writes formatted text to where standard output goes now. The text waits in
 * the stream until zov_flush(), a message, or the end of the redirection. Before
 * start-up and after shut-down it goes to libc's stdout, in the same format;
 * a text of 512 characters and more is then cut when memory is short.
 *
 * @param format format as in zov_vsnprintf()
 * @return characters that the stream took; 0 when output is silent; -1 when the
 *         text cannot be formatted or was not taken whole.
 *
 * Takes the stack's lock.
 * Cost: one lock pair; the work buffer grows to the longest text and is kept.
 * Messages: as zov_vfprintf().
 */
ZOV_API int32_t zov_printf(const char *format, ...) ZOV_PRINTF(1, 2);

/** zov_printf() with an argument list, which is left as it was. */
ZOV_API int32_t zov_printfV(const char *format, va_list arguments) ZOV_PRINTF(1, 0);

/** zov_printf() to where standard error goes now. */
ZOV_API int32_t zov_printfErr(const char *format, ...) ZOV_PRINTF(1, 2);

/** zov_printfErr() with an argument list, which is left as it was. */
ZOV_API int32_t zov_printfErrV(const char *format, va_list arguments) ZOV_PRINTF(1, 0);

/** Sends what zov_printf() left waiting to the file and to disk; flushes libc's
 *  stdout instead when output is silent. Messages: as
 *  zov_fflush(). */
ZOV_API void zov_flush(void);

/** zov_flush() for standard error. */
ZOV_API void zov_flushErr(void);

/**
 * Writes a message to where standard output goes now, unless the process runs
 * in the background, and to the log file, if one is open, behind the local time
 * as "[%d-%b-%Y %H:%M:%S]" and two spaces. Both are flushed to disk. The text
 * carries its own line end; a NUL among its characters ends it.
 *
 * A message that comes up while this thread writes output (that writing fails)
 * goes to descriptor 2 instead. When the library is not started the text goes
 * to libc's stdout alone, and the format is libc's: %ls then takes a wide
 * string. Of an empty text the log file gets the time alone, without a line end.
 *
 * @param format format as in zov_vsnprintf()
 * @return characters that the console's stream took, also when they could not be
 *         sent on; 0 when there was none, or when the text cannot be formatted, which
 *         writes nothing. When memory for a text
 *         of 512 characters and more is missing, its first 511 are written.
 *
 * Takes the lock of the console stack, then that of the log
 * stack, never both.
 * Cost: no allocation below 512 characters; one write and one sync for each
 * destination. Messages: as zov_fflush().
 */
ZOV_API int32_t zov_log(const char *format, ...) ZOV_PRINTF(1, 2);

/** zov_log() with an argument list, which is left as it was. */
ZOV_API int32_t zov_logV(const char *format, va_list arguments) ZOV_PRINTF(1, 0);

/** zov_log() with standard error as its console. */
ZOV_API int32_t zov_log_err(const char *format, ...) ZOV_PRINTF(1, 2);

/** zov_log_err() with an argument list, as zov_logV(). */
ZOV_API int32_t zov_log_errV(const char *format, va_list arguments) ZOV_PRINTF(1, 0);

/**
 * Begins a log record that is put together from pieces.
 * @return the record, to be ended with zov_log_chunk_end(); null when the
 *         library is not started or memory is missing.
 */
ZOV_API ZOV_LOG_CHUNK zov_log_chunk_init(void);

/**
 * Adds a piece to a record.
 *
 * @param chunk  the record; null is ignored
 * @param format format as in zov_vsnprintf(); null is ignored
 * @return characters added, 0 without a record or a format; -1 when the piece
 *         cannot be formatted or memory is missing: the record then stays as it was.
 *
 * Threads: one at a time.
 */
ZOV_API int32_t zov_log_chunk(ZOV_LOG_CHUNK chunk, const char *format, ...) ZOV_PRINTF(2, 3);

/**
 * Ends a record: writes it as one message of zov_log(), with one timestamp, if
 * its text is not empty, and releases it.
 *
 * @param chunk  the record; null is ignored
 * @param format a last piece as in zov_log_chunk(), or null
 *
 * Threads: one at a time on a record; takes the locks that zov_log() takes.
 * Messages: as zov_log().
 */
ZOV_API void zov_log_chunk_end(ZOV_LOG_CHUNK chunk, const char *format, ...) ZOV_PRINTF(2, 3);

/** Flushes both consoles, unless the process runs in the background, and the
 *  log file. Messages: as zov_fflush(). */
ZOV_API void zov_log_flush(void);
/** @} */

/* ======================================================================== */
/**
 * @defgroup zov_strings Strings and rounding
 * May be called at any time. (text/zov_string)
 * @{
 */

/**
 * Converts the lower-case bytes of a string to upper case, in place, by the
 * locale of the calling thread. Bytes are taken one by one: in a UTF-8 locale
 * only ASCII letters change.
 *
 * @param text the string, or null
 * @return text.
 */
ZOV_API char *strupr(char *text);

/** As strupr(), from upper case to lower case. */
ZOV_API char *strlwr(char *text);

/** As strupr(), for wide strings, whose characters change whole. */
ZOV_API wchar_t *wcsupr(wchar_t *text);

/** As wcsupr(), from upper case to lower case. */
ZOV_API wchar_t *wcslwr(wchar_t *text);

/**
 * Copies as much of a string as fits and terminates it.
 *
 * @param destination where to; all size bytes are written, zeros behind the text
 * @param source      the string; null counts as an empty one
 * @param size        size of the destination in bytes; with 0 nothing is
 *                    touched
 * @return destination.
 *
 * Cost: writes the whole destination, however short the string.
 */
ZOV_API char *zov_strncpyZ(char *destination, const char *source, uint64_t size);

/** As zov_strncpyZ(), for wide strings; size counts characters. */
ZOV_API wchar_t *zov_wcsncpyZ(wchar_t *destination, const wchar_t *source, uint64_t size);

/**
 * Rounds to the nearest integer, halves away from zero: floor(value + 0.5), or
 * ceil(value - 0.5) below zero and for a NaN. The sum is rounded first, so the
 * largest double below 0.5 gives 1.
 *
 * @return the integer as a double; cannot fail.
 */
ZOV_API double zov_round(double value);
/** @} */

/* ======================================================================== */
/**
 * @defgroup zov_random Random numbers
 * Sequences that repeat with their seed, for tests and simulations. (text/zov_random)
 *
 * Threads: one at a time on a generator.
 * @{
 */

/** A generator of pseudo-random numbers: the 32-bit Mersenne Twister MT19937
 *  of Matsumoto and Nishimura. Equal seeds give equal sequences. Not fit for
 *  secrets. */
typedef struct RandState *ZOV_RAND;

/**
 * Makes a generator.
 *
 * @param seed the seed; 0 stands for 0x8DF1337C
 * @return the generator, to be released with zov_randDestroy(), or null.
 *
 * Messages: as zov_getMem(). May jump: yes.
 */
ZOV_API ZOV_RAND zov_randCreate(uint32_t seed);

/** Releases a generator; null is ignored. Threads: nobody may use it any more. */
ZOV_API void zov_randDestroy(ZOV_RAND generator);

/**
 * Starts the sequence of a seed. Here 0 is a seed like any other.
 */
ZOV_API void zov_randSetSeed(ZOV_RAND generator, uint32_t seed);

/** The same as zov_randSetSeed(). */
ZOV_API void zov_randResetSeed(ZOV_RAND generator, uint32_t seed);

/**
 * Draws a number.
 * @return the next of the sequence, from 0 to 4294967295.
 * Cost: a few instructions; every 624th draw makes the
 * next 624 words.
 */
ZOV_API uint32_t zov_randGetNext(ZOV_RAND generator);

/** As zov_randGetNext(), without the top bit: 0 to 2147483647. */
ZOV_API int32_t zov_randGet(ZOV_RAND generator);

/** The same as zov_randGetNext(). */
ZOV_API uint32_t zov_randGetUInt32(ZOV_RAND generator);

/** As zov_randGetNext(), of 64 bits: two draws, the first one above. */
ZOV_API uint64_t zov_randGetUInt64(ZOV_RAND generator);

/** As zov_randGetNext(), divided by 4294967295: 0.0 to 1.0, both included. */
ZOV_API double zov_randGetDouble(ZOV_RAND generator);
/** @} */

/* ======================================================================== */
/**
 * @defgroup zov_inifiles INI files
 * A file is text, of the encodings of zov_fopen(). A line is cut at its first
 * semicolon; nothing quotes one. `[name]` at the start of a line opens a
 * section; `name = value` below it is a parameter. Spaces around the equal sign
 * and white space at the end of a line do not count; white space in front does,
 * as part of the name. Parameter names have at least two characters; other
 * lines are ignored. Names longer than 127 bytes are cut there. Where a name
 * occurs several times the first one is found.
 *
 * Paths, sections and parameters are compared without regard to ASCII case,
 * paths also without regard to their type flags. What a file says is kept by
 * path from its first reading until zov_iniCleanup() or zov_term(); a change on
 * disk is seen only after zov_readIniFile(). At most 65,535 files, sections of a
 * file and parameters of a section are kept, and what is beyond is ignored; a
 * file beyond is refused with #ZOV_INI_NOMEMORY.
 *
 * Statuses are #ZOV_OKAY, #ZOV_ERROR for a section or a parameter that does not
 * exist, and the codes below. Forms without `Ex` are those with it and flags of
 * 0. Wide forms convert every text strictly; a null text is refused with
 * #ZOV_INI_NOMEMORY, which makes lists of names unavailable there.
 *
 * Messages: as zov_getMem(), zov_fopenEx() and, where a file is read or written,
 * the transfers of its handle. (config/zovini)
 * @{
 */

/** Memory is short, or a wide text could not be converted. */
#define ZOV_INI_NOMEMORY (-904)
/** The file could not be read, or the copy of it not be made. */
#define ZOV_INI_NOFILE (-905)
/** The changed copy could not be written, or not take the place of the file. */
#define ZOV_INI_NOTREPLACED (-919)
/** A required argument is null. */
#define ZOV_INI_NOARGUMENT (-924)
/** The output buffer is too small; it holds as much as fits. */
#define ZOV_INI_TRUNCATED (-932)

/** Forgets every file. Threads: no other call of this family may be under way. */
ZOV_API void zov_iniCleanup(void);

/**
 * Reads a file, or reads it again.
 *
 * @param path  its path; of a file that cannot be opened nothing stays known
 * @param flags the type flags of zov_fopenEx()
 * @return #ZOV_OKAY, also for a file that cannot be opened, or
 *         #ZOV_INI_NOMEMORY, when nothing of the file is known.
 *
 * Threads: no other call of this family may be under way. Cost: linear in the
 * file; reading it again allocates only for what has grown.
 */
ZOV_API ZOV_STATUS zov_readIniFileEx(const char *path, uint16_t flags);
/** zov_readIniFileEx() on disk. */
ZOV_API ZOV_STATUS zov_readIniFile(const char *path);
/** zov_readIniFile() with a wide path. */
ZOV_API ZOV_STATUS zov_readIniFileW(const wchar_t *path);
/** zov_readIniFileEx() with a wide path. What is known of a file that cannot be
 *  opened stays known. */
ZOV_API ZOV_STATUS zov_readIniFileExW(const wchar_t *path, uint16_t flags);

/**
 * Gets a value or a list of names. A file of which no section is known is read
 * first. A value ends at its first semicolon, one that was set too.
 *
 * A list has a NUL behind each name and one more at its end. The same goes for
 * a value, so that one of L bytes needs a buffer of L + 3. A result that fills
 * the buffer but for its last byte, or more, is cut there and not terminated.
 *
 * @param path      path of the file
 * @param section   the section; null lists the names of all sections
 * @param name      the parameter; null lists the names of the section's. Room
 *                  for this list counts modulo 65,536: in a larger buffer it ends
 *                  early, without a sign of it, at a multiple from the end.
 * @param out       place for the result
 * @param sizeBytes its size; with 0 nothing is stored
 * @param flags     the type flags of zov_fopenEx()
 * @return #ZOV_OKAY, #ZOV_ERROR with an empty string at out, #ZOV_INI_TRUNCATED,
 *         #ZOV_INI_NOARGUMENT without out; #ZOV_INI_NOFILE, also for a null path
 *         and while the library is not started, or #ZOV_INI_NOMEMORY, with out as
 *         it was.
 *
 * Threads: any; one at a time gets or sets, and the others wait, also while a
 * set waits for another process. Not in a signal handler, nor in a child that
 * was forked while another thread was in this family.
 * Cost: of a known file one lock and three look-ups by hash.
 */
ZOV_API ZOV_STATUS zov_iniGetEx(const char *path, const char *section, const char *name, char *out,
                                uint32_t sizeBytes, uint16_t flags);
/** zov_iniGetEx() on disk. */
ZOV_API ZOV_STATUS zov_iniGet(const char *path, const char *section, const char *name, char *out,
                              uint32_t sizeBytes);
/** zov_iniGet() with wide texts; otherwise as zov_iniGetExW(). */
ZOV_API ZOV_STATUS zov_iniGetW(const wchar_t *path, const wchar_t *section, const wchar_t *name,
                               wchar_t *out, uint32_t sizeChars);
/**
 * zov_iniGetEx() with wide texts. The buffer is written on success only. A value
 * that is not UTF-8 gives #ZOV_INI_NOMEMORY. Each call allocates four bytes a
 * character of the buffer, and releases them.
 * @param sizeChars room at out in wide characters. A value is cut to fit and
 *                  terminated; one of more than 4 * sizeChars - 3 bytes of UTF-8
 *                  is #ZOV_INI_TRUNCATED.
 */
ZOV_API ZOV_STATUS zov_iniGetExW(const wchar_t *path, const wchar_t *section, const wchar_t *name,
                                 wchar_t *out, uint32_t sizeChars, uint16_t flags);

/** The same as zov_iniGet(). */
ZOV_API ZOV_STATUS zov_iniString(const char *path, const char *section, const char *name, char *out,
                                 uint32_t sizeBytes);
/** The same as zov_iniGetEx(). */
ZOV_API ZOV_STATUS zov_iniStringEx(const char *path, const char *section, const char *name,
                                   char *out, uint32_t sizeBytes, uint16_t flags);
/** The same as zov_iniGetW(). */
ZOV_API ZOV_STATUS zov_iniStringW(const wchar_t *path, const wchar_t *section, const wchar_t *name,
                                  wchar_t *out, uint32_t sizeChars);
/** The same as zov_iniGetExW(). */
ZOV_API ZOV_STATUS zov_iniStringExW(const wchar_t *path, const wchar_t *section,
                                    const wchar_t *name, wchar_t *out, uint32_t sizeChars,
                                    uint16_t flags);

/**
 * Gets a value as a decimal integer, read as by strtol(): up to the first
 * character that is not part of one, 0 if there is none. The low 32 bits count.
 *
 * @param value place for the integer, written on success only
 * @return as zov_iniGetEx() with a buffer of 20 bytes: #ZOV_INI_TRUNCATED for a
 *         value of more than 17 characters.
 *
 * The other arguments, threads and cost: as zov_iniGetEx().
 */
ZOV_API ZOV_STATUS zov_iniInt32Ex(const char *path, const char *section, const char *name,
                                  int32_t *value, uint16_t flags);
/** zov_iniInt32Ex() on disk. */
ZOV_API ZOV_STATUS zov_iniInt32(const char *path, const char *section, const char *name,
                                int32_t *value);
/** zov_iniInt32() with wide texts. */
ZOV_API ZOV_STATUS zov_iniInt32W(const wchar_t *path, const wchar_t *section, const wchar_t *name,
                                 int32_t *value);
/** zov_iniInt32Ex() with wide texts. */
ZOV_API ZOV_STATUS zov_iniInt32ExW(const wchar_t *path, const wchar_t *section, const wchar_t *name,
                                   int32_t *value, uint16_t flags);

/**
 * Sets or deletes a parameter, or deletes a section, of a file that exists.
 *
 * The file is copied with the change, the copy is synced, takes the place of the
 * file in one step, its directory is synced, and it is read; #ZOV_FILE_NOSYNC
 * leaves out both syncs. At each moment the old file or the new is there, whole.
 * A failure leaves the file as it was. One exception: a directory that cannot be
 * synced gives #ZOV_INI_NOTREPLACED with the new file in place.
 *
 * The copy is a new file, of UTF-8 without a mark. In memory it has no name until
 * it has the file's. On disk it has the file's permission, and owner and group
 * where the process may give them: without the group it has no group bits, and
 * for others only what the group had too. Access lists and other attributes are
 * not kept, and a file that had a list becomes its owner's alone. A symbolic
 * link, or one name of several of a file, is replaced by the new file; the other
 * names keep the old one.
 *
 * On disk the copy is "_temp_.ini" in the file's directory until then, readable
 * by its owner alone, and keeps sets of other processes in that directory out by
 * a lock (flock). A set waits up to two seconds for one. What a killed process
 * left under that name is removed; but a copy of another user, which cannot be
 * opened, must be removed by hand, and so must any where the file system has no
 * such locks. What else is there is left alone. Other programs that change the
 * file are not kept out: what they write while a set is under way may be lost.
 *
 * A set replaces the first line of the first such section whose text before the
 * equal sign is the name, spaces included. Without one it adds a line, in front
 * of the blank lines at the end of the section; without the section it adds an
 * empty line, the section and the line at the end of the file. Of lines of the
 * section that begin with white space the text is lost in front of the place of
 * the change, and at the end of the file the lines too. Deleting a parameter removes all such
 * lines, and those that begin with white space.
 *
 * @param path    path of the file; not one named "_temp_.ini"
 * @param section the section
 * @param name    the parameter; null deletes the section
 * @param value   its value, written as it is; null deletes the parameter
 * @param flags   the type flags of zov_fopenEx()
 * @return #ZOV_OKAY, also when there was nothing to delete; #ZOV_INI_NOARGUMENT
 *         without a section; #ZOV_INI_NOTREPLACED when the copy could not be
 *         written or put in place; #ZOV_INI_NOMEMORY; #ZOV_INI_NOFILE when the
 *         file cannot be read, is no plain file or begins with the bytes FE FF,
 *         when the copy cannot be made or another process has it for too long,
 *         for a null path, on disk under zov_rdonly() and zov_nodisk(), and while
 *         the library is not started.
 *
 * Threads: as zov_iniGetEx(). Cost: the file is read twice, written once and
 * synced, and its directory is synced.
 */
ZOV_API ZOV_STATUS zov_iniSetEx(const char *path, const char *section, const char *name,
                                const char *value, uint16_t flags);
/** zov_iniSetEx() on disk. */
ZOV_API ZOV_STATUS zov_iniSet(const char *path, const char *section, const char *name,
                              const char *value);
/** zov_iniSet() with wide texts, none of them null. */
ZOV_API ZOV_STATUS zov_iniSetW(const wchar_t *path, const wchar_t *section, const wchar_t *name,
                               const wchar_t *value);
/** zov_iniSetEx() with wide texts, none of them null. */
ZOV_API ZOV_STATUS zov_iniSetExW(const wchar_t *path, const wchar_t *section, const wchar_t *name,
                                 const wchar_t *value, uint16_t flags);
/** @} */

/* ======================================================================== */
/**
 * @defgroup zov_parser Parser driver
 * Drives the tables that zov-tables makes of a grammar. (config/zovparse)
 * @{
 */

/**
 * The tables of a grammar, in the layout of the classic yacc; zov-tables makes
 * them. States, rules and tokens count from 0, non-terminals from 1; state 0 is
 * the first, token 0 the end of input. The driver trusts them: wrong tables are
 * undefined behaviour.
 */
typedef struct ZOV_PARSE_TABLES {
  uint16_t errorToken; /**< number of the error token */
  int16_t tableLength; /**< entries of action, and at least of check */
  /** Pairs. (-1, state) opens the section of a state; (token, rule) follow, and
   *  a pair with a negative first entry, whose rule is for all other tokens,
   *  ends it. A negative rule accepts, rule 0 is a syntax error. */
  const int16_t *exceptions;
  /** The states that shifts and reductions lead to. */
  const int16_t *action;
  /** By state: where in action its shifts are, by token; -1000 and below for a
   *  state without. */
  const int16_t *pact;
  /** By non-terminal: where in action the state entered with it is, at 0 the
   *  usual one and at state + 1 the one of a state that differs. */
  const int16_t *pgo;
  const int16_t *ruleLeft;   /**< by rule: the non-terminal on its left */
  const int16_t *ruleLength; /**< by rule: symbols on its right */
  /** By state: the symbol by which it is entered, a token or a non-terminal
   *  negated. An entry of action counts only for the symbol found here. */
  const int16_t *check;
  /** By state: the rule to reduce by when nothing can be shifted, 65534 to look
   *  into exceptions, 0 for a syntax error. */
  const uint16_t *defaultRule;
} ZOV_PARSE_TABLES;

/**
 * Delivers the next token.
 *
 * @param userContext as in the parser's context
 * @param value       place for the token's value; holds the last one
 * @return its number; 0 or less at the end of input. The number of the error
 *         token is taken like any other, where a rule has it.
 */
typedef int16_t (*ZOV_PARSE_LEXER)(void *userContext, void *value);

/**
 * Performs a rule.
 *
 * @param userContext as in the parser's context
 * @param lastValue   value of the last symbol on the right; that of the one
 *                    before it is one value size below, and so on. All may be
 *                    read, those further down belong to what came before.
 * @param rule        number of the rule
 * @param result      place for the value of the left side; holds the value of
 *                    the first symbol on the right
 * @return 0, or a status with which the parse ends at once.
 */
typedef int16_t (*ZOV_PARSE_ACTION)(void *userContext, void *lastValue, int32_t rule, void *result);

/** Hears that a parse is abandoned because no state on the stack takes the error
 *  token, after everything of the parse is released that is not the caller's.
 *  It is not called for an error that a rule takes, when the input ends within an
 *  error, when memory runs out, nor for the status of an action. */
typedef void (*ZOV_PARSE_ERROR)(void *userContext);

/** What zov_yyparse() works with; it changes none of it. */
typedef struct ZOV_PARSE_CONTEXT {
  uint64_t valueSize;             /**< bytes of a value, 1 or more, copied as they are */
  void *userContext;              /**< for the callbacks */
  const ZOV_PARSE_TABLES *tables; /**< the grammar */
  ZOV_PARSE_LEXER lexer;          /**< brings the next token */
  ZOV_PARSE_ACTION action;        /**< carries out a rule */
  ZOV_PARSE_ERROR error;          /**< or null */
  /** Tag for the stacks, which then stay with it after the call; 0 for a tag of
   *  the call's own, released at its end. */
  ZOV_TAG tag;
} ZOV_PARSE_CONTEXT;

/**
 * Parses what the lexer delivers.
 *
 * A syntax error drops states until one accepts the error token, and then tokens
 * until one fits. The value of the error token is what the lexer stored last, for
 * the token that did not fit. The error is over after three shifts, or with the next
 * reduction, that of an empty rule too: a rule like `statement: error` that reduces
 * without a token of its own is found again at the same token for ever, so grammars
 * have ``statement: error ';'``.
 *
 * @param context the grammar, the callbacks and the tag
 * @return 0 when the input was accepted; 1 to 3, accepted within so many shifts
 *         of the end of an error; 3 also when the parse was abandoned, which
 *         alone the error callback hears, when the input ended within an error,
 *         and when memory ran out; else the status of an action.
 *
 * Threads: any, each with its own context or callbacks that allow for it.
 * Cost: a token takes one call of the lexer, a reduction one of the action, and
 * both a copy of a value; no memory is allocated but for the stacks, which begin
 * with 100 entries and grow by 50.
 * Messages: as zov_getMem().
 * May jump: to the recovery point of a tag in the context. Callbacks may leave
 * by a jump of their own only if the context names a tag.
 */
ZOV_API int32_t zov_yyparse(const ZOV_PARSE_CONTEXT *context);
/** @} */

/* ======================================================================== */
/**
 * @defgroup zov_buffers Typed buffers
 * Numbers and strings over a channel of bytes that the caller brings. (config/zovbufferedstream)
 *
 * The encoding, item behind item, without frames or padding: integers and
 * IEEE 754 floats of 1, 2, 4 or 8 bytes in the sender's byte order, reversed by
 * a side that swaps; a string with length as a 32-bit length and its bytes
 * without NUL, the length 4294967295 alone being the null string; plain strings
 * and raw bytes as they are.
 *
 * A status is 0, what a callback returned, passed on unchanged, or one of the
 * two codes below. Threads: one at a time on a buffer; different buffers are independent.
 * @{
 */

/** Memory for a buffer or a string could not be obtained. */
#define ZOV_BUFF_NOMEMORY (-904)
/** A string did not fit. */
#define ZOV_BUFF_TRUNCATED (-211)

/** A buffer that decodes what it reads; null when absent. */
typedef struct InputBuffer *ZOV_INPUTBUFF;

/** A buffer that encodes and writes; null when absent. */
typedef struct OutputBuffer *ZOV_OUTPUTBUFF;

/**
 * Delivers bytes of the channel, at least one if it wants to make progress: a
 * success without bytes is followed by the next call.
 *
 * @param context   as given at creation
 * @param buffer    where to
 * @param capacity  room there, in bytes
 * @param delivered place for the number of bytes delivered, 0 beforehand; a
 *                  number above capacity counts as capacity, and none counts on
 *                  failure
 * @return 0, or the caller's own status for end, time-out or failure.
 */
typedef ZOV_STATUS (*ZOV_BUFF_READ)(void *context, void *buffer, uint32_t capacity,
                                    uint32_t *delivered);

/** As ::ZOV_BUFF_READ, with the wait that the reader asked for. */
typedef ZOV_STATUS (*ZOV_BUFF_TIMED_READ)(void *context, void *buffer, uint32_t capacity,
                                          uint32_t *delivered, uint32_t waitMs);

/** Takes all length bytes of data and returns 0, or returns the caller's own
 *  status, after which the same bytes are offered again by a later call. */
typedef ZOV_STATUS (*ZOV_BUFF_WRITE)(void *context, const void *data, uint32_t length);

/**
 * Makes an input buffer of 5000 bytes. Nothing is read yet.
 *
 * @param read      delivers bytes
 * @param timedRead delivers bytes within a time, or null
 * @param context   passed to both unchanged
 * @param swap      non-zero: values of more than one byte are reversed
 * @param handle    place for the buffer, to be released with
 *                  zov_inputBuffDestroy(); null on failure
 * @return 0 or #ZOV_BUFF_NOMEMORY.
 *
 * Messages: as zov_getMem(). May jump: yes.
 */
ZOV_API ZOV_STATUS zov_inputBuffCreate(ZOV_BUFF_READ read, ZOV_BUFF_TIMED_READ timedRead,
                                       void *context, ZOV_BOOL swap, ZOV_INPUTBUFF *handle);

/** Releases an input buffer with what it holds; null is ignored. */
ZOV_API void zov_inputBuffDestroy(ZOV_INPUTBUFF handle);

/**
 * Reads one byte.
 *
 * @param handle the buffer
 * @param place  place for the value, written on success only
 * @return a status. When a callback fails half-way through an item, the bytes
 *         of the item that had arrived are lost; nothing else is.
 */
ZOV_API ZOV_STATUS zov_inputBuffGetChar(ZOV_INPUTBUFF handle, char *place);

/** As zov_inputBuffGetChar(), for 16-bit integers. */
ZOV_API ZOV_STATUS zov_inputBuffGetInt16(ZOV_INPUTBUFF handle, int16_t *place);
/** As zov_inputBuffGetChar(), for 32-bit integers. */
ZOV_API ZOV_STATUS zov_inputBuffGetInt32(ZOV_INPUTBUFF handle, int32_t *place);
/** As zov_inputBuffGetChar(), for 64-bit integers. */
ZOV_API ZOV_STATUS zov_inputBuffGetInt64(ZOV_INPUTBUFF handle, int64_t *place);
/** As zov_inputBuffGetChar(), for 32-bit floats. */
ZOV_API ZOV_STATUS zov_inputBuffGetFloat32(ZOV_INPUTBUFF handle, float *place);
/** As zov_inputBuffGetChar(), for 64-bit floats. */
ZOV_API ZOV_STATUS zov_inputBuffGetFloat64(ZOV_INPUTBUFF handle, double *place);

/**
 * As zov_inputBuffGetInt32(), reading through the timed callback. The wait goes
 * to every such call, of which a value in pieces takes several.
 *
 * @param waitMs wait time as the callback understands it; 0 reads through the
 *               plain callback, as does a buffer without a timed one
 */
ZOV_API ZOV_STATUS zov_inputBuffGetInt32Timeout(ZOV_INPUTBUFF handle, int32_t *place,
                                                uint32_t waitMs);

/**
 * Reads a string with length into a buffer, and terminates it. Of a longer
 * string the rest is read and dropped, so that the next item comes next.
 *
 * @param handle the buffer
 * @param buffer where to; holds an empty string for the null string, and when
 *               what fits of the text fails to arrive; untouched when the length
 *               does
 * @param size   room there in bytes, the NUL's included; with 0 nothing is
 *               stored and nothing fits
 * @return a status; #ZOV_BUFF_TRUNCATED when the string did not fit.
 */
ZOV_API ZOV_STATUS zov_inputBuffGetStringWithLength(ZOV_INPUTBUFF handle, char *buffer,
                                                    uint64_t size);

/**
 * Reads a string with length into memory of its own. Up to 64 KiB are allocated
 * at once; a longer string grows twofold as its text arrives, so a length alone
 * costs nothing.
 *
 * @param handle the buffer
 * @param text   place for the string, the caller's, of the default tag; null
 *               for the null string and on failure
 * @return a status. Behind a failure what the call allocated is released, and the
 *         length and an unknown part of the text are consumed: the next item
 *         cannot be found any more.
 *
 * Messages: as zov_getMem(). May jump: yes, as after #ZOV_BUFF_NOMEMORY. A jump
 * of a callback's own leaves the memory to the default tag.
 */
ZOV_API ZOV_STATUS zov_inputBuffGetString(ZOV_INPUTBUFF handle, char **text);

/**
 * Reads raw bytes, never reversed.
 *
 * @param handle      the buffer
 * @param destination where to; null drops them
 * @param count       how many
 * @return a status.
 */
ZOV_API ZOV_STATUS zov_inputBuffGetBytes(ZOV_INPUTBUFF handle, void *destination, uint64_t count);

/** Discards what the buffer holds; the next read asks the channel. */
ZOV_API void zov_inputBuffReset(ZOV_INPUTBUFF handle);

/**
 * Makes an output buffer of 5000 bytes.
 *
 * @param write   takes the bytes
 * @param context passed to it unchanged
 * @param swap    non-zero: values of more than one byte are reversed
 * @param handle  place for the buffer, to be released with
 *                zov_outputBuffDestroy(); null on failure
 * @return 0 or #ZOV_BUFF_NOMEMORY.
 *
 * Messages: as zov_getMem(). May jump: yes.
 */
ZOV_API ZOV_STATUS zov_outputBuffCreate(ZOV_BUFF_WRITE write, void *context, ZOV_BOOL swap,
                                        ZOV_OUTPUTBUFF *handle);

/** Releases an output buffer without flushing it; null is ignored. */
ZOV_API void zov_outputBuffDestroy(ZOV_OUTPUTBUFF handle);

/**
 * Writes the low 8 bits of a value. Bytes collect in the buffer; a full one is
 * sent when the next byte comes.
 *
 * @param handle the buffer
 * @param value  the value
 * @return a status. When the callback fails all that was buffered stays so, and
 *         with it the first bytes of an item that straddled.
 */
ZOV_API ZOV_STATUS zov_outputBuffPutChar(ZOV_OUTPUTBUFF handle, int32_t value);

/** As zov_outputBuffPutChar(), for 16-bit integers. */
ZOV_API ZOV_STATUS zov_outputBuffPutInt16(ZOV_OUTPUTBUFF handle, int16_t value);
/** As zov_outputBuffPutChar(), for 32-bit integers. */
ZOV_API ZOV_STATUS zov_outputBuffPutInt32(ZOV_OUTPUTBUFF handle, int32_t value);
/** As zov_outputBuffPutChar(), for 64-bit integers. */
ZOV_API ZOV_STATUS zov_outputBuffPutInt64(ZOV_OUTPUTBUFF handle, int64_t value);
/** As zov_outputBuffPutChar(), for 32-bit floats. */
ZOV_API ZOV_STATUS zov_outputBuffPutFloat32(ZOV_OUTPUTBUFF handle, float value);
/** As zov_outputBuffPutChar(), for 64-bit floats. */
ZOV_API ZOV_STATUS zov_outputBuffPutFloat64(ZOV_OUTPUTBUFF handle, double value);

/** As zov_outputBuffPutChar(), for the bytes of text without its NUL; the
 *  reader must know how many they are. */
ZOV_API ZOV_STATUS zov_outputBuffPutString(ZOV_OUTPUTBUFF handle, const char *text);

/**
 * As zov_outputBuffPutChar(), for a string with length.
 *
 * @param text the string, or null for the null string
 * @return a status; #ZOV_BUFF_TRUNCATED, with nothing written, for a string of
 *         4294967295 bytes and more.
 */
ZOV_API ZOV_STATUS zov_outputBuffPutStringWithLength(ZOV_OUTPUTBUFF handle, const char *text);

/** As zov_outputBuffPutChar(), for count bytes of data as they are, never reversed. */
ZOV_API ZOV_STATUS zov_outputBuffPutBytes(ZOV_OUTPUTBUFF handle, const void *data, uint64_t count);

/** Sends what the buffer holds, if anything, in one call of the callback.
 *  @return a status; on failure the buffer holds it still. */
ZOV_API ZOV_STATUS zov_outputBuffFlush(ZOV_OUTPUTBUFF handle);

/**
 * Flushes, then hands raw bytes to the callback without copying them.
 *
 * @param handle the buffer
 * @param data   the bytes
 * @param count  how many; with 0 nothing happens. 2^32 and more go in several
 *               calls.
 * @return a status. After a failure it is the caller who knows how many bytes
 *         the callback has taken.
 */
ZOV_API ZOV_STATUS zov_outputBuffSendDirect(ZOV_OUTPUTBUFF handle, const void *data,
                                            uint64_t count);
/** @} */

/* ======================================================================== */
/**
 * @defgroup zov_process Processes, servers and signals
 * Process ids, servers in the background, interrupts. (os/zovunix_process, os/zovunix_daemon)
 *
 * All of this family may be called at any time, started or not.
 * @{
 */

/** Head of a list for the programs built on the library, which agree on what is
 *  in it; null after zov_init(). The library does not look at it. */
ZOV_API extern void *deviceHead;

/** A mutex for the list at #deviceHead; #ZOV_NO_SYNC while the library is not
 *  started. */
ZOV_API extern ZOV_SYNC deviceSem;

/** What zov_handleInterrupt() calls. Runs in signal context: convention 11. */
typedef void (*ZOV_INTERRUPT)(void);

/** The main function of a service. */
typedef int32_t (*ZOV_SERVICE_MAIN)(int32_t argumentCount, char **arguments);

/** Tells the id of the calling process. @return the id; cannot fail. */
ZOV_API uint32_t zov_get_pid(void);

/** Asks whether a process has the id pid. @return 1 if there is one, also one that may not
 *  be signalled, else 0, so for 0 and above INT32_MAX. */
ZOV_API ZOV_BOOL zov_check_pid(uint32_t pid);

/**
 * Continues the program in a child process that becomes a background server:
 * file-creation mask 0, a session of its own without a terminal, #zov_background
 * set, standard streams on /dev/null. The working directory and every other
 * descriptor stay. The calling process, the launcher, never
 * returns. It waits for zov_daemonComplete() and exits with a status for
 * whoever started it:
 *
 * | the server                           | exit status of the launcher |
 * |--------------------------------------|-----------------------------|
 * | reports, whatever it does afterwards | 0                           |
 * | exits without a report               | the same status             |
 * | is killed by a signal                | 256 minus the signal        |
 * | is stopped by a signal               | 99                          |
 * | closes the descriptor and lives on   | 0, two seconds later        |
 *
 * The launcher exits through exit(), so that its exit handlers run, but it does
 * not end the library. What was printed or logged before goes out first, and what
 * stdin has read ahead from a file is given back.
 *
 * @param serverName kept in #server_name for the messages; the caller keeps the
 *                   string alive
 * @param out        receives the descriptor for zov_daemonComplete(), above 2
 *                   and not inherited by other programs; -1 on failure
 * @return #ZOV_OKAY, in the server. #ZOV_ERROR when the pipe, /dev/null or the
 *         process cannot be made; nothing has changed then but #server_name.
 *
 * Threads: the only one of the process, since a fork keeps no other. May be
 * called before zov_init().
 * Messages: of the launcher, "%s started successfully.\n" with the name; or on
 * standard error "%s startup aborted with a status of %d." with name and
 * status, "Unexpected status signal from %s child process.\n" or "%s terminated
 * by internal error or external signal (%d).\n" with name and signal.
 */
ZOV_API ZOV_STATUS zov_daemonStart(const char *serverName, int32_t *out);

/**
 * Reports to the launcher that the server has started, and closes the
 * descriptor. A launcher that is gone by now does not matter, whatever is set
 * for SIGPIPE.
 *
 * @param descriptor what zov_daemonStart() gave, once
 */
ZOV_API void zov_daemonComplete(int32_t descriptor);

/**
 * Sets what happens on SIGINT, until the next call and also after zov_term().
 * Interrupts that arrive while the callback runs are dropped. Of the system calls
 * that an interrupt breaks into those go on that SA_RESTART resumes: reads,
 * writes and waits for locks. Sleeps, poll() and its kind end with EINTR.
 *
 * @param callback called on each interrupt, on a thread that does not block it
 *                 (those of zov_threadBegin() do) and in signal context, where
 *                 little is safe: best it sets a flag or writes to a pipe, and
 *                 it must return. Null: interrupts are ignored.
 * @return #ZOV_OKAY, always.
 *
 * Threads: one at a time; the callback may call it.
 */
ZOV_API ZOV_STATUS zov_handleInterrupt(ZOV_INTERRUPT callback);

/** Prints a text and a newline on libc's standard output.
 *  @return the result of puts(), negative on failure: -1. */
ZOV_API int32_t zov_errPrint(const char *text);

/**
 * Runs a program as a service where there is a service manager; here, calls it.
 *
 * @param name          unused, may be null
 * @param event         unused, may be null
 * @param argumentCount the number of arguments, passed on
 * @param arguments     passed on
 * @param mainFunction  the program
 * @return what mainFunction returns; cannot fail itself.
 */
ZOV_API int32_t zov_serviceStart(const void *name, const void *event, int32_t argumentCount,
                                 char **arguments, ZOV_SERVICE_MAIN mainFunction);

/** Tells a service manager that the service runs; does nothing here. */
ZOV_API void zov_serviceStarted(void);

/** Tells a service manager that the service is done; does nothing here. */
ZOV_API void zov_serviceDone(void);

/** Registers a service. @return #ZOV_ERROR: there is no manager here. */
ZOV_API ZOV_STATUS zov_serviceInstall(void);

/** Takes a registration back. @return #ZOV_ERROR: there is no manager here. */
ZOV_API ZOV_STATUS zov_serviceUninstall(void);

/** Asks whether a memory checker instruments the process. @return 0, always: as far as this
 *  platform can tell, none does. */
ZOV_API ZOV_BOOL zov_isPurifyRunning(void);
/** @} */

/* ======================================================================== */
/**
 * @defgroup zov_time Time and errors
 * Clocks, sleeping, and the number of the last error. All of this family may be called at any
 * time, started or not. (os/zovunix_time)
 * @{
 */

/** Reads the clock. @return the current time in seconds since the epoch; cannot fail. */
ZOV_API int64_t zov_timeSecs(void);

/** As zov_timeSecs(), meant to start a random generator. */
ZOV_API int64_t zov_seed(void);

/**
 * Reads the wall clock in milliseconds, for differences only: the value wraps
 * about every 49.7 days, and a difference in unsigned 32-bit arithmetic stays
 * right across the wrap.
 * @return the milliseconds since the epoch, modulo 2^32; cannot fail.
 */
ZOV_API uint32_t zov_timeMilliSecs(void);

/** Reads the real-time clock. @return the nanoseconds since the epoch; cannot fail. */
ZOV_API uint64_t zov_timeNanoSecs(void);

/**
 * Breaks a time down into local time.
 * @param timeSecs seconds since the epoch
 * @param out      place for the parts
 * @return out, or null for a year that does not fit it.
 */
ZOV_API struct tm *zov_timeLocaltime(int64_t timeSecs, struct tm *out);

/**
 * Gives a time as libc's ctime() text: 26 characters with line end and NUL.
 * @param timeSecs seconds since the epoch
 * @return the text in a buffer that the whole process shares, or null for a
 *         year that does not fit it.
 * Threads: one at a time in the process.
 */
ZOV_API char *zov_timeCtime(int64_t timeSecs);

/** Sleeps for waitMs milliseconds; a signal handler that runs meanwhile does not
 *  shorten it. */
ZOV_API void zov_sleep(uint32_t waitMs);

/** Tells the number of the last error. @return the calling thread's errno; cannot fail. */
ZOV_API uint32_t zov_errno(void);
/** @} */

/* ======================================================================== */
/**
 * @defgroup zov_environment Environment and locale
 * What the process was started with. (os/zovunix_time)
 * @{
 */

/**
 * Reads an environment variable.
 * @param name its name
 * @return the value, which the environment owns, or null.
 * Threads: any, while nobody changes the environment. May be called at any time.
 */
ZOV_API char *zov_getenv(const char *name);

/**
 * Reads an environment variable as a wide string.
 * @param name its name
 * @return a copy of the value, released with zov_freeMem() on the default tag;
 *         null when it is not set, when the name cannot be converted, when the
 *         value is not valid UTF-8 or when memory is missing.
 * Threads: as zov_getenv(). Messages: those of failing allocations. May jump.
 */
ZOV_API wchar_t *zov_getenvW(const wchar_t *name);

/**
 * Sets or asks for the locale, as libc's setlocale().
 * @param category one of libc's LC_ constants
 * @param locale   name of the locale, or null to ask only
 * @return the name in force, which libc owns, or null.
 * Threads: one at a time in the process, while nobody formats numbers. May be
 * called at any time.
 */
ZOV_API char *zov_setlocale(int32_t category, const char *locale);

/**
 * zov_setlocale() with wide strings.
 * @return a copy of the name, released with zov_freeMem() on the default tag;
 *         null also when a conversion fails or memory is missing.
 * Messages: those of failing allocations. May jump, before or after the locale
 * was set.
 */
ZOV_API wchar_t *zov_setlocaleW(int32_t category, const wchar_t *locale);
/** @} */

/* ======================================================================== */
/**
 * @defgroup zov_temporary Temporary directories
 * Where files go that nobody keeps. Names for them makes zov_fileCreateTmpName().
 * (os/zovunix_tmpdir)
 * @{
 */

/**
 * Looks for a directory for temporary files: that of the environment variable
 * TMPDIR, that of TEMPDIR, "/tmp", the current one; the first that is writable.
 * An empty variable names no directory.
 *
 * @return a copy of its path, released with zov_freeMem() on the default tag;
 *         null when none is writable, memory is missing or the library is not
 *         started.
 *
 * Threads: any, while nobody changes the environment. Messages: those of
 * failing allocations. May jump.
 */
ZOV_API char *zov_findOStmpdir(void);

/**
 * Gives the directory of zov_findOStmpdir(), looked for once and kept.
 *
 * @return its path, which the library owns until shut-down; null when none is
 *         writable or memory is short, when the next call looks again, and when the
 *         library is not started.
 *
 * Threads: any; the first call enters the process-wide critical section, so a
 * thread that is inside must not ask. Cost: one atomic load once it is known.
 * Messages: those of failing allocations.
 */
ZOV_API const char *zov_osTmpdir(void);

/**
 * Gives the directory that temporary files go to: the value of the environment
 * variable QEL_TMPDIR as it is, writable or not, and empty too; else
 * zov_osTmpdir().
 *
 * @param tag tag of the copy, 0 for the default one
 * @return a copy of its path, released with zov_freeMem() on that tag; null as
 *         zov_osTmpdir(), and when memory is short.
 *
 * Threads: as zov_osTmpdir(). Messages: those of failing allocations. May jump.
 */
ZOV_API char *zov_tmpdir(ZOV_TAG tag);

/**
 * Tells whether a file can be made in a directory on disk, by making one and
 * removing it. Its name begins with "qel_dirtest_tmp" and holds the ids of
 * process and thread; what has that name already is left alone, and another
 * number tried behind it, up to 99. One that cannot be removed again stays. No
 * directory is writable under the read-only and diskless flags.
 *
 * @param directory the directory; null and "" are not writable
 * @return 1 or 0.
 *
 * Messages: as zov_fileOpen().
 */
ZOV_API ZOV_BOOL zov_dirWritable(const char *directory);
/** @} */

/* ======================================================================== */
/**
 * @defgroup zov_beneath Layers beneath files in memory
 * What files in memory stand on, from the lowest up. A program has no need of them; they
 * serve those that keep their own kind of file in memory, and debuggers' scripts.
 * @{
 */
/** @} */

/* ======================================================================== */
/**
 * @defgroup zov_heap Shared-memory heap
 * @ingroup zov_beneath
 * Contexts with a root block and numbered regions. (memstore/zovshmheap)
 * @{
 */

/** A context of the heap: a root block and numbered regions. Its id, a 64-bit
 *  number never 0, is its handle's address. The layers above keep one context
 *  for each file and store the id as the file's identity. */
typedef struct ZOV_CAPABILITY("mutex") ShmContext *ZOV_SHM_CTX;

/** A region of a context; the handle is the region's address. */
typedef struct ShmRegion *ZOV_SHM_REGION;

/** Tells which context was made at start-up. @return its id; 0 when the heap is down. */
ZOV_API uint64_t zov_shmRootId(void);

/**
 * Makes an empty context, of one memory tag.
 *
 * @return its id, to be released with zov_shmRemoveCtx() (zov_shmTerm()
 *         releases what is left), or 0 when memory is short.
 *
 * Messages: that of a failing allocation, but none when there is no
 * memory for the tag.
 */
ZOV_API uint64_t zov_shmNextId(void);

/**
 * Opens a context. The first open with `O_CREAT` makes its root block, of
 * rootSize zero bytes; what later ones pass decides only whether they are told the
 * address. Each makes the context's lock if it is away: the mapping cache deletes
 * it when nobody has the context open through the cache any more.
 *
 * @param id       id of the context; any other number is refused
 * @param flags    open flags, of which `O_CREAT` counts
 * @param rootSize size of the root block in bytes
 * @param root     place for its address, left alone when rootSize is 0; or null
 * @return the handle, which the heap owns and nobody closes, or null: no such
 *         context, or no root block and no `O_CREAT` (errno is `ENOENT`), a size of 0
 *         for a new one, memory (`ENOMEM`) or sync objects (`ENFILE`) run out.
 *         zov_shmRemoveCtx() releases the context.
 *
 * Threads: one at a time on a context.
 * Messages: those of a failing allocation or zov_syncCreate_check().
 */
ZOV_API ZOV_SHM_CTX zov_shmOpenCtx(uint64_t id, uint32_t flags, uint32_t rootSize, void **root);

/** Does nothing: contexts count no users here. Threads: any. */
ZOV_API void zov_shmCloseCtx(ZOV_SHM_CTX context);

/**
 * Releases a context with its root block, lock and regions, all of which must
 * be out of use. What is not a context, null included, is ignored.
 * Threads: one at a time on a context.
 */
ZOV_API void zov_shmRemoveCtx(ZOV_SHM_CTX context);

/**
 * Makes a region of zero bytes. One that has the number already is replaced;
 * its memory stays until the context is released.
 *
 * @param context the context; null gives null
 * @param number  the region's number, below 4,294,967,295
 * @param start   where it begins in the file it is part of; not used
 * @param size    its size in bytes
 * @return the region, which the context owns until zov_shmDestroy(), or null when
 *         memory is short. If that hits the table of
 *         regions, every region of the context is out of reach from then on
 *         and the memory stays until the context is released.
 *
 * Threads: one at a time on a context. Messages: that of a failing allocation.
 */
ZOV_API ZOV_SHM_REGION zov_shmCreate(ZOV_SHM_CTX context, uint32_t number, uint64_t start,
                                     uint32_t size);

/**
 * Finds the region of a number. start and size, in bytes, are not used.
 * @return the region, which the context owns, or null when there is none.
 * Threads: one at a time on a context.
 */
ZOV_API ZOV_SHM_REGION zov_shmOpen(ZOV_SHM_CTX context, uint32_t number, uint64_t start,
                                   uint32_t size);

/** Does nothing: regions count no users here. Threads: any. */
ZOV_API void zov_shmClose(ZOV_SHM_REGION region);

/**
 * Releases a region; a number without one is ignored, and so is a null context.
 * Threads: one at a time on a context.
 */
ZOV_API void zov_shmDestroy(ZOV_SHM_CTX context, uint32_t number);

/** Tells where a region is. @return its address, never null, in memory of the context. It does
 *  not move. Threads: any. */
ZOV_API void *zov_shmGetPtr(ZOV_SHM_REGION region);

/** Does nothing: an address costs nothing to keep. Threads: any. */
ZOV_API void zov_shmReleasePtr(ZOV_SHM_REGION region, void *address);

/**
 * Enters the lock of a context, a recursive mutex that the layers above hold
 * while they use the context's root block and regions. Makes it if it is away.
 *
 * @return #ZOV_OKAY, or #ZOV_ERROR for a context that never had a root block
 *         and so has no lock, and when none can be made.
 *
 * Threads: any; waits while another thread is inside.
 * Messages: those of zov_syncCreate_check().
 */
ZOV_API ZOV_STATUS zov_shmLock(ZOV_SHM_CTX context);

/** Leaves the lock of a context. Threads: the one inside. */
ZOV_API void zov_shmUnlock(ZOV_SHM_CTX context);
/** @} */

/* ======================================================================== */
/**
 * @defgroup zov_mapcache Mapping cache
 * @ingroup zov_beneath
 * Counts who has which context and region open or pinned. (memstore/zovshmcache)
 * @{
 */

/** An open context of the heap, shared by all who have it open. */
typedef struct ZOV_CAPABILITY("mutex") CacheContext *ZOV_CACHE_CTX;

/** An open region of such a context, likewise shared. */
typedef struct CacheRegion *ZOV_CACHE_REGION;

/**
 * Opens a context, as zov_shmOpenCtx() does, or counts one more user of an open
 * one. One marked as deleted is not found by its id any more: it is opened anew
 * beside those who have it.
 *
 * @param id       id of the context
 * @param flags    open flags, of which `O_CREAT` counts
 * @param rootSize size of the root block, not 0
 * @param root     place for the address of the root block
 * @return the context, to be left with zov_shmCacheCloseCtx(), or null.
 *
 * Messages: as zov_shmOpenCtx().
 */
ZOV_API ZOV_CACHE_CTX zov_shmCacheOpenCtx(uint64_t id, uint32_t flags, uint32_t rootSize,
                                          void **root);

/** Leaves a context, of which the caller has closed its regions; the last user
 *  to leave closes it, and deletes its lock unless somebody holds it or waits for it. */
ZOV_API void zov_shmCacheCloseCtx(ZOV_CACHE_CTX context);

/** Marks a context as deleted: opens by its id do not find it any more. Its
 *  users keep it. */
ZOV_API void zov_shmCacheMarkDeleted(ZOV_CACHE_CTX context);

/** Asks whether a context is marked as deleted. @return 1 when it is, else 0. */
ZOV_API ZOV_BOOL zov_shmCacheIsDeleted(ZOV_CACHE_CTX context);

/** Counts the users of a context. @return how many opens of it are not closed, 0 for none. */
ZOV_API uint32_t zov_shmCacheNumUsers(ZOV_CACHE_CTX context);

/**
 * Removes the context of an id from the heap. One that somebody still has open is marked
 * as deleted instead and removed when the last of its users leaves.
 */
ZOV_API void zov_shmCacheRemoveCtx(uint64_t id);

/**
 * Opens a region by its number, making it with zov_shmCreate(), of size bytes, when nobody has
 * it open. If somebody has, also by way of a context that is marked as deleted, start
 * and size do not count, and a destruction that waits for the last close is called off.
 *
 * @return the region, to be closed with zov_shmCacheClose(), or null when memory
 *         is short.
 *
 * Messages: that of a failing allocation.
 */
ZOV_API ZOV_CACHE_REGION zov_shmCacheCreate(ZOV_CACHE_CTX context, uint32_t number, uint64_t start,
                                            uint32_t size);

/**
 * Opens the region of a number. start and size, in bytes, are not used.
 * @return the region, to be closed with zov_shmCacheClose(), or null when there
 *         is none of that number or memory is short.
 * Messages: that of a failing allocation.
 */
ZOV_API ZOV_CACHE_REGION zov_shmCacheOpen(ZOV_CACHE_CTX context, uint32_t number, uint64_t start,
                                          uint32_t size);

/** Closes a region, of which the caller has released its pins. With the last
 *  close it is unmapped, and destroyed if that was asked for. */
ZOV_API void zov_shmCacheClose(ZOV_CACHE_REGION region);

/**
 * Destroys the region of a number: at once when nobody has it open, else when the last who
 * has closes it.
 * Threads: any that holds the context's lock.
 */
ZOV_API void zov_shmCacheDestroy(ZOV_CACHE_CTX context, uint32_t number);

/**
 * Pins a region: it stays mapped until the pin is released. At most 400 regions
 * are mapped at once, more only while that many are pinned, as by directories,
 * which pin all their pages; room is made by unmapping the one that was released
 * last.
 *
 * @return the region's address, to be given back with zov_shmCacheReleasePtr(),
 *         or null.
 *
 * Constant time.
 */
ZOV_API void *zov_shmCacheGetPtr(ZOV_CACHE_REGION region);

/** Releases one pin of a region, which gave its address. Constant time. */
ZOV_API void zov_shmCacheReleasePtr(ZOV_CACHE_REGION region, void *address);

/** Enters the lock of a context, as zov_shmLock(); one that is open has it.
 *  @return #ZOV_OKAY, always. */
ZOV_API ZOV_STATUS zov_shmCacheLock(ZOV_CACHE_CTX context) ZOV_ACQUIRE(context);

/** Leaves the lock of a context. Threads: the one inside. */
ZOV_API void zov_shmCacheUnlock(ZOV_CACHE_CTX context) ZOV_RELEASE(context);

/** The same as zov_shmRootId(). */
ZOV_API uint64_t zov_shmCacheRootId(void);

/** The same as zov_shmNextId(). */
ZOV_API uint64_t zov_shmCacheNextId(void);
/** @} */

/* ======================================================================== */
/**
 * @defgroup zov_segments Segmented files
 * @ingroup zov_beneath
 * Arrays of bytes that grow, by number. (memstore/zovsegfile)
 * @{
 */

/** An open segmented file: a growable array of bytes in memory, named by the id
 *  of its context. It lies in segments that grow with the file: four of the base
 *  size, 4096 bytes, then three each of 4, 16, 64, 256 and 1024 times that, then
 *  4096 times that, up to 2^47 bytes, past which no file reaches.
 *
 *  A file is used in one of two ways, by bytes or by pages; a page is a segment
 *  of the base size, whatever its number. */
typedef struct ZOV_CAPABILITY("mutex") SegFile *ZOV_SEG;

/** The same as zov_shmRootId(): the file of this id is that of the root directory. */
ZOV_API uint64_t zov_segRootId(void);

/** As zov_shmNextId(), for a new file. One that is never opened is released with
 *  zov_shmCacheRemoveCtx(). */
ZOV_API uint64_t zov_segNextId(void);

/**
 * Opens a segmented file.
 *
 * @param id    its id
 * @param flags open flags: `O_CREAT` makes the file when it is new, `O_TRUNC`
 *              empties it, for everybody who has it open
 * @return the file, to be closed with zov_segClose() or zov_segRemove(), or
 *         null, with errno set: an id that names nothing (`ENOENT`), memory is short
 *         (`ENOMEM`), or there are no sync objects left (`ENFILE`).
 *
 * Threads: any; with `O_TRUNC` waits for the file's lock.
 * Messages: those of a failing allocation or zov_syncCreate_check().
 */
ZOV_API ZOV_SEG zov_segOpen(uint64_t id, uint32_t flags);

/** Closes a file. If it was removed and nobody else has it open, its memory is
 *  released. Threads: one at a time on a handle; waits for the file's lock, also for
 *  one that a thread holds by zov_segLock(). Two threads that each hold one file's
 *  lock and close a handle of the other's wait for ever: hold one file's lock at
 *  most, or take them in one order. */
ZOV_API void zov_segClose(ZOV_SEG file);

/**
 * Removes a file and closes this handle. Others who have it open keep it until
 * they close it; while there are any, it can be opened again by its id.
 * @return #ZOV_OKAY, always.
 * Threads: one at a time on a handle; waits for the file's lock, see zov_segClose().
 */
ZOV_API ZOV_STATUS zov_segRemove(ZOV_SEG file);

/**
 * Reads length bytes at an offset in bytes into buffer. What lies between the writes of a file
 * reads as zero, and takes its memory then.
 *
 * @return how many were read: fewer than length at the end of the file, or when
 *         memory for such a hole is short (errno is `ENOMEM`).
 *
 * Threads: any; on a file, one after the other.
 * Cost: the file's lock, and a lookup and a copy for each segment; no pin.
 * Messages: that of a failing allocation.
 */
ZOV_API uint32_t zov_segSeekRead(ZOV_SEG file, uint64_t offset, void *buffer, uint32_t length);

/**
 * Writes length bytes of buffer at an offset in bytes; the file grows as it must, also past its
 * end.
 *
 * @return how many were written: fewer than length when memory is short (errno is
 *         `ENOMEM`) or the range goes on past 2^47, 0 when it begins there (`EFBIG`).
 *
 * Threads, cost, messages: as zov_segSeekRead().
 */
ZOV_API uint32_t zov_segSeekWrite(ZOV_SEG file, uint64_t offset, const void *buffer,
                                  uint32_t length);

/**
 * Pins a page, making it, all zero, when there is none of that number.
 *
 * @param file    the file, whose lock the caller holds
 * @param number  the page's number
 * @param address place for its address, null on failure. To be given back with
 *                zov_segReleasePtr().
 * @return #ZOV_OKAY, or #ZOV_ERROR when memory is short.
 *
 * Threads: one at a time on a handle. Messages: that of a failing allocation.
 */
ZOV_API ZOV_STATUS zov_segGetPtr(ZOV_SEG file, uint32_t number, void **address);

/** Releases a pin of the page of a number, which gave its address. Threads: the one that
 *  holds the file's lock. */
ZOV_API void zov_segReleasePtr(ZOV_SEG file, uint32_t number, void *address);

/** Tells the base segment size. @return bytes; cannot fail. Threads: any. */
ZOV_API uint32_t zov_segSegSize(ZOV_SEG file);

/** Tells the size of a file. @return bytes; cannot fail. Threads: any; takes no lock. */
ZOV_API uint64_t zov_segSize(ZOV_SEG file);

/**
 * Sets the size of a file. What it gains reads as zero. The modification time
 * stays.
 *
 * @param file the file, whose lock the caller holds
 * @param size the new size in bytes, below 2^47
 * @return #ZOV_OKAY, or #ZOV_ERROR: memory is short (errno is `ENOMEM`) or the size
 *         too high (`EFBIG`). The size is then as it was; segments that were made
 *         stay.
 *
 * Threads: one at a time on a handle. Cost: what it gains is allocated at once;
 * what it loses, a step for each segment that exists.
 * Messages: that of a failing allocation.
 */
ZOV_API ZOV_STATUS zov_segSetSize(ZOV_SEG file, uint64_t size);

/** Tells the size of a file by its id. @return bytes, or all ones when there is no
 *  such file. Does not take the file's lock. */
ZOV_API uint64_t zov_segSizeStat(uint64_t id);

/** Tells when the file of an id was last written to. @return seconds since the
 *  epoch, 0 if it never was; or UINT32_MAX when there is no such file.
 *  Does not take the file's lock. */
ZOV_API uint64_t zov_segModTime(uint64_t id);

/** Enters the lock of a file, recursive and shared by all who have the file
 *  open. @return #ZOV_OKAY, always. Threads: any; waits while another thread is inside. */
ZOV_API ZOV_STATUS zov_segLock(ZOV_SEG file) ZOV_ACQUIRE(file);

/** Leaves the lock of a file. Threads: the one inside. */
ZOV_API void zov_segUnlock(ZOV_SEG file) ZOV_RELEASE(file);
/** @} */

/* ======================================================================== */
/**
 * @defgroup zov_stages Stages of start-up
 * What zov_init() and zov_term() call, in this order, and nobody else. A stage that fails leaves
 * nothing behind, and those before it are ended in reverse.
 *
 * Threads: none beside it; the process-wide critical section is held.
 * Messages of what starts a module: those of zov_syncCreate_check().
 * @{
 */

/**
 * Empties the table of sync objects.
 * @return #ZOV_OKAY, always.
 */
ZOV_API ZOV_STATUS zov_syncInit(void);

/**
 * Starts the memory module.
 * @return #ZOV_OKAY or #ZOV_ERROR.
 * Messages: "Out of memory initializing ZOV memory module".
 */
ZOV_API ZOV_STATUS zov_memInit(void);

/**
 * Starts the file handles.
 * @return #ZOV_OKAY or #ZOV_ERROR.
 */
ZOV_API ZOV_STATUS zov_fileInit(void);

/** Starts the module. @return #ZOV_OKAY or #ZOV_ERROR. */
ZOV_API ZOV_STATUS zov_iniInit(void);

/**
 * Prepares the process: raises the soft limit on open descriptors to the hard
 * one (to 1024 if it is lower and the hard one is unlimited), makes #deviceSem,
 * and ignores SIGPIPE, so that writing to a closed pipe or socket fails instead
 * of ending the process. Each of the descriptors 0 to 2 that is closed gets
 * /dev/null, opened so that transfers go on failing with EBADF: 0 for writing, 1
 * and 2 for reading. No file gets these numbers then. Without /dev/null they
 * stay closed. The process keeps all this when the library ends, and hands it on
 * to the programs that it starts.
 * @return #ZOV_OKAY or #ZOV_ERROR.
 */
ZOV_API ZOV_STATUS zov_osInit(void);

/**
 * Starts the memory files and the layers beneath.
 * @return #ZOV_OKAY or #ZOV_ERROR.
 */
ZOV_API ZOV_STATUS zov_mfInit(void);

/**
 * Starts the mapping cache and what is beneath it; see zov_mfInit().
 * @return #ZOV_OKAY or #ZOV_ERROR.
 */
ZOV_API ZOV_STATUS zov_segInit(void);

/**
 * Starts the heap and the mapping cache over it; see zov_mfInit().
 * @param pageSize place for the page size in bytes, 4096
 * @return #ZOV_OKAY or #ZOV_ERROR.
 */
ZOV_API ZOV_STATUS zov_shmCacheInit(uint32_t *pageSize);

/**
 * Starts the heap and makes its first context. The first of the calls that
 * start the memory storage; see zov_mfInit().
 * @param pageSize place for the page size in bytes, 4096
 * @return #ZOV_OKAY or #ZOV_ERROR.
 */
ZOV_API ZOV_STATUS zov_shmInit(uint32_t *pageSize);

/** Ends them, and releases every file in memory.
 *  @return #ZOV_OKAY, always. */
ZOV_API ZOV_STATUS zov_mfTerm(void);

/** Ends it, and with it every segmented file. @return #ZOV_OKAY, always. */
ZOV_API ZOV_STATUS zov_segTerm(void);

/** Ends the cache and the heap. @return #ZOV_OKAY, always. */
ZOV_API ZOV_STATUS zov_shmCacheTerm(void);

/** Releases every context with its memory and ends the heap. */
ZOV_API void zov_shmTerm(void);

/** Releases #deviceSem. */
ZOV_API void zov_osTerm(void);

/** Forgets every file and ends the module. */
ZOV_API void zov_iniTerm(void);

/** Releases the memory of every handle; files still open are abandoned, not
 *  closed. */
ZOV_API void zov_fileTerm(void);

/** Destroys every sync object and releases the table's memory. */
ZOV_API void zov_syncShutdown(void);

/**
 * Releases every block of every tag and every tag, with #zov_terminating set.
 */
ZOV_API void zov_memTerm(void);

/** Ends the module; there is nothing left to do by then. */
ZOV_API void zov_syncTerm(void);
/** @} */

#ifdef __cplusplus
}
#endif

#endif
