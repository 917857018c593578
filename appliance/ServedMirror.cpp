#include "appliance/ServedMirror.h"

#include "appliance/FlagControl.h"
#include "appliance/ServedServices.h"

const char* servedOpName(ServedOp op)
{
    switch (op) {
    case ServedOp::Read: return "read";
    case ServedOp::Write: return "write";
    case ServedOp::Zero: return "zero";
    case ServedOp::Trim: return "trim";
    case ServedOp::Flush: return "flush";
    case ServedOp::Extents: return "extents";
    }
    return "";
}

ServedMirror::ServedMirror(TaskEngine& engine, ServedOptions options)
    : m_engine(engine), m_options(std::move(options))
{}

ServedMirror::~ServedMirror()
{
    const Result ignored = stop();
}

Result ServedMirror::start()
{
    const MirrorAccess access = m_options.m_readOnly ? MirrorAccess::Reader : MirrorAccess::Writer;
    if (Result result = Mirror::open(m_options.m_folder, access, m_options.m_recovery, &m_mirror);
        !result.ok())
        return result;
    FlagControl control(m_startInterrupted);
    if (!m_options.m_readOnly) {
        if (Result result = LiveVolume::open(*m_mirror, control, &m_live); !result.ok()) {
            m_mirror.reset();
            return result;
        }
    }
    // Only the owner of the mirror can see to it that a view which nobody has open is in nobody's
    // way.
    m_views = std::make_unique<ViewShelf>(*m_mirror, m_options.m_viewsBudgetBytes,
                                          !m_options.m_readOnly, m_options.m_files);
    // Views can be built anew, requests that are refused cannot.
    if (m_live != nullptr)
        m_live->onNoMemory([views = m_views.get()] { return views->dropUnused(~u64{0}) > 0; });
    m_diffs = std::make_unique<DiffMaps>(*m_mirror, *m_views);
    m_services = std::make_unique<ServedServices>(*this);
    Result result = m_startInterrupted
                        ? Result(ResultCode::Interrupted, "interrupted before anything was served")
                        : m_services->start(control);
    if (!result.ok()) {
        const Result ignored = stop();
    }
    return result;
}

Result ServedMirror::seal(u64 deadlineMs)
{
    m_sealed = true;
    m_views->stop();
    m_diffs->stop();
    // At once, as a request that hangs may use up all the time that there is.
    Result result = m_options.m_readOnly ? Result() : m_mirror->flush();
    if (!result.ok())
        return result;
    if (!m_requests.wait(deadlineMs))
        return Result::failed("a request is still under way");
    if (!m_options.m_readOnly)
        result = m_mirror->flush();
    // Each has a file in the mirror's folder that would stay.
    m_openViews.clear();
    m_views->dropUnused(~u64{0});
    return result;
}

Result ServedMirror::stop()
{
    m_sealed = true;
    if (m_mirror == nullptr)
        return Result();
    m_views->stop();
    m_diffs->stop();
    // First, as an apply may take its time to come to a point where it can stop.
    if (!m_options.m_readOnly)
        const Result ignored = m_mirror->flush(); // closing tries again, and tells
    m_requests.wait();
    m_services.reset();
    m_diffs.reset();
    // What clients have left open.
    m_openViews.clear();
    m_views.reset();
    m_live.reset();
    Result result = m_mirror->close();
    m_mirror.reset();
    return result;
}
