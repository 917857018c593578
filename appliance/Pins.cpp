#include "appliance/Pins.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstring>
#include <random>
#include <thread>
#include <unistd.h>

#include "appliance/ApplyState.h"
#include "common/infra/LogItem.h"
#include "host/journal/CheckedFile.h"

namespace {

constexpr const char* HOLDS_FOLDER = "holds";
constexpr const char* USES_FOLDER = "uses";
constexpr const char* LATCH = "latch";
constexpr int LATCH_TRIES = 1000;
constexpr auto LATCH_PAUSE = std::chrono::milliseconds(10);
constexpr size_t MAX_NAME = 64;

std::string usePath(const std::string& name)
{
    return std::string(USES_FOLDER) + "/" + name;
}

// A number and a text: what a hold and a use are made of.
template <size_t N> std::vector<u8> packed(const u64 (&numbers)[N], const std::string& text)
{
    std::vector<u8> bytes(sizeof numbers + text.size());
    std::memcpy(bytes.data(), numbers, sizeof numbers);
    std::copy(text.begin(), text.end(), bytes.begin() + sizeof numbers);
    return bytes;
}

template <size_t N> bool unpack(const std::vector<u8>& bytes, u64 (&numbers)[N], std::string* text)
{
    if (bytes.size() < sizeof numbers)
        return false;
    std::memcpy(numbers, bytes.data(), sizeof numbers);
    text->assign(bytes.begin() + sizeof numbers, bytes.end());
    return true;
}

bool isHoldName(const std::string& name)
{
    const auto isWord = [](char c) {
        return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9');
    };
    return !name.empty() && name.size() <= MAX_NAME && isWord(name.front()) &&
           std::all_of(name.begin(), name.end(),
                       [&](char c) { return isWord(c) || c == '.' || c == '_' || c == '-'; });
}

// A name that no other use has or had: who lets go removes a file by its name, without the latch,
// and must not meet a file that somebody else has just made under the same one.
std::string freshUseName(u64 process)
{
    static const u32 tag = std::random_device()(); // process numbers come again
    static std::atomic<u64> count{0};
    return std::to_string(process) + "-" + std::to_string(tag) + "-" + std::to_string(++count);
}

constexpr const char* HOLD_SUFFIX = ".hold";

std::string holdFile(const std::string& name)
{
    return name + HOLD_SUFFIX;
}

// The name of a hold's file, or "" for files that are none, as a crash may leave some.
std::string holdNameOf(const std::string& file)
{
    const std::string suffix = HOLD_SUFFIX;
    const bool fits = file.size() > suffix.size() &&
                      file.compare(file.size() - suffix.size(), suffix.size(), suffix) == 0;
    return fits ? file.substr(0, file.size() - suffix.size()) : "";
}

RcStatus openLatch(Storage& storage, std::unique_ptr<StorageFile>* file)
{
    const RcStatus rc = storage.makeDir(USES_FOLDER);
    return rc == RC_SUCCESS ? storage.open(usePath(LATCH), StorageAccess::Create, file) : rc;
}

// The numbers that a name ends in: "...=ITEMS=PAGE=PROCESS".
std::string nameWith(const std::string& name, const UseInfo& info, u64 process)
{
    return name + "=" + std::to_string(info.m_items) + "=" + std::to_string(info.m_firstPage) +
           "=" + std::to_string(process);
}

bool parseName(const std::string& name, u64 (&numbers)[3])
{
    size_t at = name.find('=');
    for (u64& number : numbers) {
        if (at == std::string::npos)
            return false;
        const char* first = name.c_str() + at + 1;
        char* end = nullptr;
        number = std::strtoull(first, &end, 10);
        if (end == first)
            return false;
        at = name.find('=', at + 1);
    }
    return true;
}

} // namespace

Result PinLatch::prepare(Storage& storage)
{
    std::unique_ptr<StorageFile> file;
    const RcStatus rc = openLatch(storage, &file);
    return rc == RC_NO_SPACE ? Result() : Result::fromStatus(rc, "cannot prepare what is in use");
}

Result PinLatch::take(Storage& storage, bool* isRefused)
{
    RcStatus rc = openLatch(storage, &m_file);
    for (int i = 0; rc == RC_SUCCESS; ++i) {
        rc = m_file->lock();
        if (rc != RC_IN_USE || i == LATCH_TRIES)
            break;
        std::this_thread::sleep_for(LATCH_PAUSE);
        rc = RC_SUCCESS;
    }
    if (isRefused != nullptr)
        *isRefused = rc == RC_IO_ERROR;
    return Result::fromStatus(rc, "cannot look at what is in use");
}

Result addHold(Storage& storage, const Hold& hold)
{
    if (!isHoldName(hold.m_name))
        return Result::usage("'" + hold.m_name +
                             "' is no name for a hold; take up to 64 letters, digits, '.', '_', "
                             "'-', with a letter or digit first");
    std::vector<Hold> holds;
    if (Result result = listHolds(storage, &holds); !result.ok())
        return result;
    for (const Hold& other : holds) {
        if (other.m_name == hold.m_name)
            return Result::usage("there is a hold '" + hold.m_name + "' already, of " +
                                 other.m_point);
    }
    RcStatus rc = storage.makeDir(HOLDS_FOLDER);
    if (rc == RC_SUCCESS)
        rc = storage.syncDir("");
    const std::vector<u8> content = packed({hold.m_items}, hold.m_point);
    if (rc == RC_SUCCESS)
        rc = storeCheckedFile(storage, HOLDS_FOLDER, holdFile(hold.m_name), content.data(),
                              content.size());
    return Result::fromStatus(rc, "cannot store the hold");
}

Result removeHold(Storage& storage, const std::string& name)
{
    RcStatus rc = isHoldName(name)
                      ? storage.remove(std::string(HOLDS_FOLDER) + "/" + holdFile(name))
                      : RC_NOT_FOUND;
    if (rc == RC_NOT_FOUND)
        return Result(ResultCode::NotFound, "there is no hold '" + name + "'");
    if (rc == RC_SUCCESS)
        rc = storage.syncDir(HOLDS_FOLDER);
    return Result::fromStatus(rc, "cannot release the hold");
}

Result listHolds(Storage& storage, std::vector<Hold>* holds)
{
    holds->clear();
    std::vector<std::string> names;
    const RcStatus listed = storage.list(HOLDS_FOLDER, &names);
    if (listed != RC_SUCCESS)
        return listed == RC_NOT_FOUND ? Result() : Result::fromStatus(listed, "cannot list holds");
    for (const std::string& file : names) {
        Hold hold;
        hold.m_name = holdNameOf(file);
        if (hold.m_name.empty())
            continue;
        std::vector<u8> content;
        const RcStatus rc = loadCheckedFile(storage, HOLDS_FOLDER, file, &content);
        if (rc == RC_NOT_FOUND) // released meanwhile
            continue;
        u64 numbers[1] = {};
        if (rc == RC_DAMAGED || (rc == RC_SUCCESS && !unpack(content, numbers, &hold.m_point)))
            return Result(ResultCode::Damaged,
                          "the hold '" + hold.m_name + "' is damaged; release it and hold again");
        if (rc != RC_SUCCESS)
            return Result::fromStatus(rc, "cannot read the hold '" + hold.m_name + "'");
        hold.m_items = numbers[0];
        holds->push_back(hold);
    }
    return Result();
}

std::string UseInfo::description() const
{
    return m_what + " in process " + std::to_string(m_process);
}

PointUse::PointUse(Storage& storage, const UseInfo& info, std::string path,
                   std::unique_ptr<StorageFile> file)
    : m_storage(storage), m_info(info), m_path(std::move(path)), m_file(std::move(file))
{}

PointUse::~PointUse()
{
    // A file that stays has no owner any more and goes at the next look.
    if (m_file != nullptr)
        m_storage.remove(m_path);
}

std::unique_ptr<PointUse> PointUse::unregistered(Storage& storage, const UseInfo& info)
{
    return std::unique_ptr<PointUse>(new PointUse(storage, info, "", nullptr));
}

RcStatus PointUse::confirmTarget()
{
    if (m_file != nullptr)
        return RC_SUCCESS;
    ApplyState state;
    const Result loaded = loadApplyState(m_storage, &state);
    const bool isPassed = loaded.ok() && m_info.m_items < state.firstItems();
    if (loaded.ok() && !isPassed)
        return RC_SUCCESS;
    if (!m_toldPassed.exchange(true))
        LogItem(LogModuleCommon, ErrorLevel, __PRETTY_FUNCTION__, 3)
            << m_info.m_what << " cannot be read any more: "
            << (isPassed ? "another process has applied up to item:" +
                               std::to_string(state.firstItems()) +
                               ", and could not know of it, as nothing can be written here to "
                               "register it"
                         : loaded.message())
            << std::endl;
    return isPassed ? RC_NOT_FOUND : RC_IO_ERROR;
}

Result PointUse::add(Storage& storage, const UseInfo& info, std::unique_ptr<PointUse>* use,
                     bool* isRefused)
{
    const u64 process = static_cast<u64>(getpid());
    std::string path = usePath(freshUseName(process));
    std::unique_ptr<StorageFile> file;
    RcStatus rc = storage.open(path, StorageAccess::Create, &file);
    if (rc == RC_SUCCESS)
        rc = file->lock();
    const std::vector<u8> content = packed({info.m_items, info.m_firstPage, process}, info.m_what);
    if (rc == RC_SUCCESS)
        rc = file->pwrite(content.data(), content.size(), 0);
    // Reading goes on where nothing can be written any more.
    if (rc == RC_NO_SPACE && file != nullptr) {
        rc = file->truncate(0);
        const std::string named = nameWith(path, info, process);
        if (rc == RC_SUCCESS)
            rc = storage.rename(path, named);
        if (rc == RC_SUCCESS)
            path = named;
        else
            storage.remove(path);
    }
    *isRefused = rc == RC_IO_ERROR;
    if (rc != RC_SUCCESS)
        return Result::fromStatus(rc, "cannot register what is in use");
    use->reset(new PointUse(storage, info, std::move(path), std::move(file)));
    return Result();
}

Result listUses(Storage& storage, const std::vector<std::string>& except,
                std::vector<UseInfo>* uses)
{
    uses->clear();
    std::vector<std::string> names;
    const RcStatus listed = storage.list(USES_FOLDER, &names);
    if (listed != RC_SUCCESS)
        return listed == RC_NOT_FOUND ? Result() : Result::fromStatus(listed, "cannot list uses");
    for (const std::string& name : names) {
        const std::string path = usePath(name);
        if (name == LATCH || std::find(except.begin(), except.end(), path) != except.end())
            continue;
        std::unique_ptr<StorageFile> file;
        RcStatus rc = storage.open(path, StorageAccess::ReadWrite, &file);
        if (rc == RC_NOT_FOUND)
            continue;
        if (rc == RC_SUCCESS && file->lock() == RC_SUCCESS) {
            storage.remove(path); // its process is gone
            continue;
        }
        u64 size = 0;
        u64 done = 0;
        if (rc == RC_SUCCESS)
            rc = file->size(&size);
        std::vector<u8> content(size);
        if (rc == RC_SUCCESS)
            rc = file->pread(content.data(), size, 0, &done);
        if (rc != RC_SUCCESS)
            return Result::fromStatus(rc, "cannot read what is in use");
        u64 numbers[3] = {};
        UseInfo info;
        // Nobody but its owner writes to it, and under the latch it is whole.
        if (done != size || !unpack(content, numbers, &info.m_what)) {
            info.m_what = "something";
            if (!parseName(name, numbers))
                std::fill(std::begin(numbers), std::end(numbers), 0);
        }
        info.m_items = numbers[0];
        info.m_firstPage = numbers[1];
        info.m_process = numbers[2];
        uses->push_back(info);
    }
    return Result();
}
