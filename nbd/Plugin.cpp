// nbdkit-rl-plugin: the exports of one mirror, for nbdkit.
//
// Here are only the callbacks, in the order in which nbdkit calls them: what they do is
// appliance/'s (ServedExport.h). No exception leaves one; a failure is an errno and a line in
// nbdkit's log.

#include <cerrno>
#include <cinttypes>
#include <csignal>
#include <cstdlib>
#include <exception>
#include <memory>
#include <string>
#include <unistd.h>

#include "appliance/ServedExport.h"
#include "nbd/Nbdkit.h"
#include "nbd/PluginConfig.h"
#include "nbd/PluginFiles.h"
#include "nbd/PluginLog.h"
#include "nbd/PluginServer.h"
#include "nbd/PluginStopper.h"

#define THREAD_MODEL NBDKIT_THREAD_MODEL_PARALLEL

// -D rl.x=1: every request is told. The name is nbdkit's: PLUGIN_debug_FLAG.
extern "C" NBDKIT_DLL_PUBLIC int rl_debug_x;
int rl_debug_x = 0;

namespace {

constexpr const char* VERSION = "0.1.0";
constexpr u32 MIN_BLOCK = 512;
constexpr u32 PREFERRED_BLOCK = 4096;
constexpr u32 MAX_BLOCK = 32 << 20;
// nbdkit takes ten thousand names of exports.
constexpr size_t MAX_LISTED = 9000;
// Of one answer to a client that asks for a block map.
constexpr size_t MAX_EXTENTS = 4096;

PluginConfig config;
// Never destroyed: the thread of a connection that came with the end may still look whether
// anything is served.
PluginServer* server = nullptr;
PluginStopper stopper;

struct Handle
{
    std::unique_ptr<ServedExport> m_export;
    std::string m_description;
};

Handle& of(void* handle)
{
    return *static_cast<Handle*>(handle);
}

// Runs a callback's body; `failed` is what the callback returns for a failure.
template <class Value, class Body> Value guarded(Value failed, Body body)
{
    try {
        return body();
    } catch (const std::bad_alloc&) {
        errno = ENOMEM;
        nbdkit_error("out of memory");
    } catch (const std::exception& error) {
        errno = EIO;
        nbdkit_error("unexpected: %s", error.what());
    } catch (...) {
        errno = EIO;
        nbdkit_error("unexpected failure");
    }
    nbdkit_set_error(errno);
    return failed;
}

int tell(const Result& result)
{
    if (result.ok())
        return 0;
    nbdkit_error("%s", result.message().c_str());
    return -1;
}

int errnoOf(RcStatus rc)
{
    switch (rc) {
    case RC_NO_SPACE: return ENOSPC;
    case RC_NO_MEMORY: return ENOMEM;
    case RC_BAD_ARGUMENT: return EINVAL;
    case RC_ABORTED: return ESHUTDOWN;
    default: return EIO;
    }
}

// What a request returns. The log has the reason already where it is one of ours.
int answer(const char* op, u64 offset, u32 count, RcStatus rc)
{
    if (rl_debug_x != 0)
        nbdkit_debug("rl: %s offset=%" PRIu64 " count=%" PRIu32 ": %s", op, offset, count,
                     rcStatusText(rc));
    if (rc == RC_SUCCESS)
        return 0;
    const int error = errnoOf(rc);
    const std::string why = std::string(": ") + rcStatusText(rc);
    logRefusal(op + why, std::string(op) + " of " + std::to_string(count) + " bytes at " +
                             std::to_string(offset) + why);
    nbdkit_set_error(error);
    errno = error;
    return -1;
}

// ---- before connections ----

void load()
{
    // A file that may not grow is answered as a full disk is, and ends nothing.
    std::signal(SIGXFSZ, SIG_IGN);
    logThroughNbdkit();
}

int setConfig(const char* key, const char* value)
{
    return guarded(-1, [&] { return tell(config.set(key, value)); });
}

int completeConfig()
{
    return guarded(-1, [] { return tell(config.complete()); });
}

void dumpPlugin()
{
    std::printf("rl_version=%s\n", VERSION);
    std::printf("rl_mirror_format=%u\n", MirrorSettings::FORMAT_VERSION);
    std::printf("rl_compressors=none,lz4,zstd\n");
    std::printf("rl_exports=live,latest,cp,tag,time,item,diff\n");
}

int threadModel()
{
    return THREAD_MODEL;
}

// Whether all that was answered is durable.
bool endServer()
{
    stopper.beginOrderlyEnd();
    const bool isKept = server == nullptr || tell(server->stop()) == 0;
    logRest();
    stopper.disarm();
    return isKept;
}

// Threads do not survive the fork before this.
int afterFork()
{
    return guarded(-1, [] {
        if (tell(raiseFileLimit()) == -1)
            return -1;
        server = new PluginServer;
        if (tell(server->prepare(config)) == -1)
            return -1;
        // Before the mirror is opened, as a big journal takes long to index.
        Result started = stopper.arm(server->served(), config.m_stopSeconds);
        if (started.ok())
            started = server->start();
        if (started.ok()) {
            stopper.beginServing();
            return 0;
        }
        endServer();
        if (started.code() != ResultCode::Interrupted || !PluginStopper::isToldToEnd())
            return tell(started);
        // nbdkit has heard of the signal too and ends in order, before it takes a client.
        nbdkit_debug("rl: told to end while the mirror was being opened");
        return 0;
    });
}

void cleanup()
{
    guarded(0, [] {
        // nbdkit asks nobody whether an end went well.
        if (!endServer())
            _exit(EXIT_FAILURE);
        PluginStopper::limitUnload();
        return 0;
    });
}

// Where cleanup was not reached; else it does nothing.
void unload()
{
    guarded(0, [] {
        endServer();
        return 0;
    });
}

// nbdkit takes every connection for which there is a descriptor, also of clients that say nothing
// at all; what is left has to suffice for the mirror's files.
int takeConnection(int /*readonly*/)
{
    return guarded(-1, [] {
        if (takeConnectionFile())
            return 0;
        logRefusal("connection",
                   "too many connections for the files that may be open: one is refused");
        return -1;
    });
}

// ---- exports ----

int listExports(int /*readonly*/, int /*isTls*/, struct nbdkit_exports* exports)
{
    return guarded(-1, [&] {
        ServedMirror& served = server->served();
        const ServedMirror::Request request(served);
        if (!request.isAdmitted())
            return tell(ServedMirror::ending());
        if (served.live() != nullptr &&
            nbdkit_add_export(exports, ServedExport::LIVE, "the live volume") == -1)
            return -1;
        const RecoverableWindow window = ServedExport::window(served);
        // Who lists them opens them all, and gives up at one that is refused.
        if (window.m_firstItems <= window.m_items &&
            nbdkit_add_export(exports, ServedExport::LATEST, "the volume as it is now") == -1)
            return -1;
        const std::vector<CheckpointInfo>& all = window.m_checkpoints;
        for (size_t i = all.size() - std::min(all.size(), MAX_LISTED); i < all.size(); ++i) {
            ChosenPoint point;
            point.m_isCheckpoint = true;
            point.m_checkpoint = all[i];
            const std::string name = point.name();
            const std::string description = point.description();
            if (nbdkit_add_export(exports, name.c_str(), description.c_str()) == -1)
                return -1;
        }
        return 0;
    });
}

const char* defaultExport(int /*readonly*/, int /*isTls*/)
{
    return config.m_served.m_readOnly ? ServedExport::LATEST : ServedExport::LIVE;
}

void* openExport(int /*readonly*/)
{
    return guarded(static_cast<void*>(nullptr), []() -> void* {
        auto handle = std::make_unique<Handle>();
        const char* name = nbdkit_export_name();
        if (tell(ServedExport::open(server->served(), name != nullptr ? name : "",
                                    &handle->m_export)) == -1)
            return nullptr;
        handle->m_description = handle->m_export->description();
        return handle.release();
    });
}

void closeExport(void* handle)
{
    guarded(0, [&] {
        delete &of(handle);
        return 0;
    });
}

const char* describeExport(void* handle)
{
    return of(handle).m_description.c_str();
}

s64 getSize(void* handle)
{
    return static_cast<s64>(of(handle).m_export->sizeBytes());
}

int blockSize(void* /*handle*/, u32* minimum, u32* preferred, u32* maximum)
{
    *minimum = MIN_BLOCK;
    *preferred = PREFERRED_BLOCK;
    *maximum = MAX_BLOCK;
    return 0;
}

// ---- what a connection can do ----

int isWritable(void* handle)
{
    return of(handle).m_export->isWritable() ? 1 : 0;
}

int yes(void* /*handle*/)
{
    return 1;
}

// A client that opens several connections takes them for one disk. A flush covers what any of them
// wrote; but a name that has come to mean another point in between would make a copy of both.
int canMultiConn(void* handle)
{
    return of(handle).m_export->isSameForAll() ? 1 : 0;
}

int canFua(void* /*handle*/)
{
    return NBDKIT_FUA_NATIVE;
}

int isRotational(void* /*handle*/)
{
    return 0;
}

// ---- requests ----

int readData(void* handle, void* data, u32 count, u64 offset, u32 /*flags*/)
{
    return guarded(-1, [&] {
        return answer("read", offset, count,
                      of(handle).m_export->read(offset, count, static_cast<u8*>(data)));
    });
}

int writeData(void* handle, const void* data, u32 count, u64 offset, u32 flags)
{
    return guarded(-1, [&] {
        return answer("write", offset, count,
                      of(handle).m_export->write(offset, count, static_cast<const u8*>(data),
                                                 (flags & NBDKIT_FLAG_FUA) != 0));
    });
}

int flushData(void* handle, u32 /*flags*/)
{
    return guarded(-1, [&] { return answer("flush", 0, 0, of(handle).m_export->flush()); });
}

int trimData(void* handle, u32 count, u64 offset, u32 flags)
{
    return guarded(-1, [&] {
        return answer("trim", offset, count,
                      of(handle).m_export->zero(ServedOp::Trim, offset, count,
                                                (flags & NBDKIT_FLAG_FUA) != 0));
    });
}

int zeroData(void* handle, u32 count, u64 offset, u32 flags)
{
    return guarded(-1, [&] {
        return answer("zero", offset, count,
                      of(handle).m_export->zero(ServedOp::Zero, offset, count,
                                                (flags & NBDKIT_FLAG_FUA) != 0));
    });
}

int findExtents(void* handle, u32 count, u64 offset, u32 flags, struct nbdkit_extents* extents)
{
    return guarded(-1, [&] {
        std::vector<ExportExtent> found;
        const size_t most = (flags & NBDKIT_FLAG_REQ_ONE) != 0 ? 1 : MAX_EXTENTS;
        if (answer("extents", offset, count,
                   of(handle).m_export->extents(offset, count, most, &found)) == -1)
            return -1;
        for (const ExportExtent& extent : found) {
            const u32 type = (extent.m_isHole ? NBDKIT_EXTENT_HOLE : 0U) |
                             (extent.m_isZero ? NBDKIT_EXTENT_ZERO : 0U);
            if (nbdkit_add_extent(extents, extent.m_offsetBytes, extent.m_lengthBytes, type) == -1)
                return -1;
        }
        return 0;
    });
}

// Assigned field by field: the structure has more of them than C++ would let an initialiser name
// out of their order.
struct nbdkit_plugin makePlugin()
{
    struct nbdkit_plugin made = {};
    made.name = "rl";
    made.longname = "nbdkit region locator plugin";
    made.version = VERSION;
    made.description = "serves a mirror's live volume and every moment of its past";
    made.load = load;
    made.unload = unload;
    made.config = setConfig;
    made.config_complete = completeConfig;
    made.config_help = PluginConfig::help();
    made.open = openExport;
    made.close = closeExport;
    made.get_size = getSize;
    made.can_write = isWritable;
    made.can_flush = yes;
    made.is_rotational = isRotational;
    made.can_trim = isWritable;
    made.errno_is_preserved = 1;
    made.dump_plugin = dumpPlugin;
    made.can_zero = isWritable;
    made.can_fua = canFua;
    made.pread = readData;
    made.pwrite = writeData;
    made.flush = flushData;
    made.trim = trimData;
    made.zero = zeroData;
    made.magic_config_key = "mirror";
    made.can_multi_conn = canMultiConn;
    made.can_extents = yes;
    made.extents = findExtents;
    made.thread_model = threadModel;
    made.can_fast_zero = isWritable;
    made.after_fork = afterFork;
    made.preconnect = takeConnection;
    made.list_exports = listExports;
    made.default_export = defaultExport;
    made.export_description = describeExport;
    made.cleanup = cleanup;
    made.block_size = blockSize;
    return made;
}

struct nbdkit_plugin plugin = makePlugin();

} // namespace

NBDKIT_REGISTER_PLUGIN(plugin)
