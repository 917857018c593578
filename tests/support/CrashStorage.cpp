#include "tests/support/CrashStorage.h"

#include <algorithm>
#include <set>

class CrashFile : public StorageFile
{
public:
    CrashFile(CrashStorage& storage, CrashStorage::InodePtr inode)
        : m_storage(storage), m_inode(std::move(inode))
    {}

    ~CrashFile() override
    {
        std::lock_guard<std::mutex> guard(m_storage.m_mutex);
        if (m_holdsLock)
            m_inode->m_locked = false;
    }

    RcStatus pread(void* data, u64 bytes, u64 offset, u64* doneBytes) override
    {
        std::lock_guard<std::mutex> guard(m_storage.m_mutex);
        *doneBytes = 0;
        const RcStatus rc = m_storage.begin(CrashStorage::Call::Read, false);
        if (rc != RC_SUCCESS)
            return rc;
        const SectorContent& content = m_inode->m_current;
        if (offset >= content.size())
            return RC_SUCCESS;
        bytes = std::min(bytes, content.size() - offset);
        *doneBytes = bytes;
        content.read(offset, static_cast<u8*>(data), bytes);
        return RC_SUCCESS;
    }

    RcStatus pwrite(const void* data, u64 bytes, u64 offset) override
    {
        std::lock_guard<std::mutex> guard(m_storage.m_mutex);
        const RcStatus rc = m_storage.begin(CrashStorage::Call::Write, true);
        if (rc != RC_SUCCESS)
            return rc;
        const u64 first = offset / CrashStorage::SECTOR_BYTES;
        const u64 count =
            (offset + bytes + CrashStorage::SECTOR_BYTES - 1) / CrashStorage::SECTOR_BYTES - first;
        const u64 fits = m_storage.takeSectors(*m_inode, first, count);
        if (fits < count) // a part may have been written
            bytes -= std::min(bytes, offset + bytes - (first + fits) * CrashStorage::SECTOR_BYTES);
        const u8* begin = static_cast<const u8*>(data);
        const auto kept = std::make_shared<const std::vector<u8>>(begin, begin + bytes);
        m_inode->m_current.write(offset, begin, bytes);
        for (u64 from = 0; from < bytes;) {
            const u64 at = offset + from;
            const u64 step = std::min(bytes - from,
                                      CrashStorage::SECTOR_BYTES - at % CrashStorage::SECTOR_BYTES);
            if (!m_inode->m_reserved.empty())
                m_inode->m_reserved.erase(at / CrashStorage::SECTOR_BYTES);
            m_inode->m_unsynced.push_back({false, at, kept, from, step});
            from += step;
        }
        return fits < count ? RC_NO_SPACE : RC_SUCCESS;
    }

    RcStatus reserve(u64 offset, u64 bytes) override
    {
        std::lock_guard<std::mutex> guard(m_storage.m_mutex);
        const RcStatus rc = m_storage.begin(CrashStorage::Call::Reserve, false);
        if (rc != RC_SUCCESS || bytes == 0)
            return rc;
        const u64 first = offset / CrashStorage::SECTOR_BYTES;
        const u64 count = (offset + bytes - 1) / CrashStorage::SECTOR_BYTES + 1 - first;
        return m_storage.takeSectors(*m_inode, first, count) < count ? RC_NO_SPACE : RC_SUCCESS;
    }

    void startSync(u64, u64 bytes) override
    {
        std::lock_guard<std::mutex> guard(m_storage.m_mutex);
        m_storage.m_startedBytes += bytes; // and any part of it may be lost all the same
    }

    RcStatus sync() override
    {
        std::lock_guard<std::mutex> guard(m_storage.m_mutex);
        const RcStatus rc = m_storage.begin(CrashStorage::Call::Sync, true);
        if (rc != RC_SUCCESS)
            return rc;
        m_inode->m_durable = m_inode->m_current;
        m_inode->m_unsynced.clear();
        return RC_SUCCESS;
    }

    RcStatus size(u64* bytes) override
    {
        std::lock_guard<std::mutex> guard(m_storage.m_mutex);
        *bytes = m_inode->m_current.size();
        return m_storage.begin(CrashStorage::Call::Read, false);
    }

    RcStatus truncate(u64 bytes) override
    {
        std::lock_guard<std::mutex> guard(m_storage.m_mutex);
        const RcStatus rc = m_storage.begin(CrashStorage::Call::Write, true);
        if (rc != RC_SUCCESS || bytes == m_inode->m_current.size())
            return rc;
        m_inode->m_current.truncate(bytes);
        m_inode->m_reserved.erase(
            m_inode->m_reserved.lower_bound(bytes / CrashStorage::SECTOR_BYTES),
            m_inode->m_reserved.end());
        m_inode->m_unsynced.push_back({true, bytes});
        return RC_SUCCESS;
    }

    RcStatus zeroRange(u64 offset, u64 bytes) override
    {
        const std::vector<u8> zeroes(bytes);
        return pwrite(zeroes.data(), bytes, offset);
    }

    RcStatus nextData(u64 offset, u64* start, u64* end) override
    {
        const RcStatus rc = size(end);
        *start = std::min(offset, *end);
        return rc;
    }

    RcStatus lock() override
    {
        std::lock_guard<std::mutex> guard(m_storage.m_mutex);
        if (m_inode->m_locked && !m_holdsLock)
            return RC_IN_USE;
        m_inode->m_locked = m_holdsLock = true;
        return RC_SUCCESS;
    }

private:
    CrashStorage& m_storage;
    CrashStorage::InodePtr m_inode;
    bool m_holdsLock = false;
};

CrashStorage::CrashStorage() = default;
CrashStorage::~CrashStorage() = default;

RcStatus CrashStorage::begin(Call call, bool changes)
{
    if (m_changes >= m_dieAfter)
        return RC_IO_ERROR;
    Fault& fault = m_faults[call];
    if (fault.m_n == 1) {
        if (!fault.m_always)
            fault.m_n = 0;
        return fault.m_rc;
    }
    if (fault.m_n > 1)
        --fault.m_n;
    m_changes += changes ? 1 : 0;
    return RC_SUCCESS;
}

RcStatus CrashStorage::open(const std::string& name, StorageAccess access,
                            std::unique_ptr<StorageFile>* file)
{
    std::lock_guard<std::mutex> guard(m_mutex);
    const RcStatus opening = begin(Call::Open, false);
    if (opening != RC_SUCCESS)
        return opening;
    auto found = m_current.find(name);
    if (found == m_current.end()) {
        if (access != StorageAccess::Create)
            return m_changes >= m_dieAfter ? RC_IO_ERROR : RC_NOT_FOUND;
        const RcStatus rc = begin(Call::Create, true);
        if (rc != RC_SUCCESS)
            return rc;
        found = m_current.emplace(name, std::make_shared<Inode>()).first;
        m_unsyncedNames.push_back({name, found->second});
    } else if (m_changes >= m_dieAfter) {
        return RC_IO_ERROR;
    }
    *file = std::make_unique<CrashFile>(*this, found->second);
    return RC_SUCCESS;
}

RcStatus CrashStorage::list(const std::string& folder, std::vector<std::string>* names)
{
    std::lock_guard<std::mutex> guard(m_mutex);
    names->clear();
    const RcStatus rc = begin(Call::Read, false);
    bool found = folder.empty();
    for (const auto& [name, inode] : m_current) {
        if (name.compare(0, folder.size() + 1, folder + "/") == 0) {
            found = true;
            if (name.size() > folder.size() + 1)
                names->push_back(name.substr(folder.size() + 1));
        }
    }
    return rc == RC_SUCCESS && !found ? RC_NOT_FOUND : rc;
}

RcStatus CrashStorage::makeDir(const std::string& folder)
{
    std::lock_guard<std::mutex> guard(m_mutex);
    // A folder is a name that ends in '/', durable at once: losing it is losing all names in it.
    const RcStatus rc = begin(Call::Create, true);
    if (rc == RC_SUCCESS && m_current.emplace(folder + "/", std::make_shared<Inode>()).second)
        m_durable.emplace(folder + "/", std::make_shared<Inode>());
    return rc;
}

RcStatus CrashStorage::remove(const std::string& name)
{
    std::lock_guard<std::mutex> guard(m_mutex);
    const RcStatus rc = begin(Call::Write, true);
    if (rc != RC_SUCCESS)
        return rc;
    if (m_current.erase(name) == 0)
        return RC_NOT_FOUND;
    m_unsyncedNames.push_back({name, nullptr});
    return RC_SUCCESS;
}

RcStatus CrashStorage::rename(const std::string& from, const std::string& to)
{
    std::lock_guard<std::mutex> guard(m_mutex);
    const RcStatus rc = begin(Call::Write, true);
    if (rc != RC_SUCCESS)
        return rc;
    const auto found = m_current.find(from);
    if (found == m_current.end())
        return RC_NOT_FOUND;
    // One unit of two names would be exact; nothing that is tested here renames.
    m_current[to] = found->second;
    m_unsyncedNames.push_back({to, found->second});
    m_current.erase(from);
    m_unsyncedNames.push_back({from, nullptr});
    return RC_SUCCESS;
}

RcStatus CrashStorage::exchange(const std::string& one, const std::string& other)
{
    std::lock_guard<std::mutex> guard(m_mutex);
    const RcStatus rc = begin(Call::Write, true);
    if (rc != RC_SUCCESS)
        return rc;
    const auto a = m_current.find(one);
    const auto b = m_current.find(other);
    if (a == m_current.end() || b == m_current.end())
        return RC_NOT_FOUND;
    std::swap(a->second, b->second);
    m_unsyncedNames.push_back({one, a->second, other, b->second});
    return RC_SUCCESS;
}

RcStatus CrashStorage::syncDir(const std::string& folder)
{
    std::lock_guard<std::mutex> guard(m_mutex);
    const RcStatus rc = begin(Call::Sync, true);
    if (rc != RC_SUCCESS)
        return rc;
    // Names in other folders, and in folders of this one, stay as durable as they were.
    const auto isIn = [&](const std::string& name) {
        const size_t slash = name.rfind('/');
        return name.compare(0, slash == std::string::npos ? 0 : slash, folder) == 0;
    };
    for (auto it = m_durable.begin(); it != m_durable.end();)
        it = isIn(it->first) ? m_durable.erase(it) : std::next(it);
    for (const auto& [name, inode] : m_current) {
        if (isIn(name))
            m_durable.emplace(name, inode);
    }
    m_unsyncedNames.erase(
        std::remove_if(m_unsyncedNames.begin(), m_unsyncedNames.end(),
                       [&](const NameChange& change) { return isIn(change.m_name); }),
        m_unsyncedNames.end());
    return RC_SUCCESS;
}

void CrashStorage::dieAfter(u64 changes)
{
    std::lock_guard<std::mutex> guard(m_mutex);
    m_dieAfter = changes;
}

u64 CrashStorage::changes() const
{
    std::lock_guard<std::mutex> guard(m_mutex);
    return m_changes;
}

u64 CrashStorage::startedBytes() const
{
    std::lock_guard<std::mutex> guard(m_mutex);
    return m_startedBytes;
}

bool CrashStorage::isDead() const
{
    std::lock_guard<std::mutex> guard(m_mutex);
    return m_changes >= m_dieAfter;
}

void CrashStorage::failCall(Call call, u64 n, RcStatus rc, bool always)
{
    std::lock_guard<std::mutex> guard(m_mutex);
    m_faults[call] = {n, rc, always};
}

void CrashStorage::setCapacity(u64 sectors)
{
    std::lock_guard<std::mutex> guard(m_mutex);
    m_capacity = sectors;
}

u64 CrashStorage::usedSectors() const
{
    std::lock_guard<std::mutex> guard(m_mutex);
    return usedLocked();
}

u64 CrashStorage::usedLocked() const
{
    std::set<const Inode*> seen;
    u64 used = 0;
    for (const Names* names : {&m_current, &m_durable}) {
        for (const auto& [name, inode] : *names) {
            if (seen.insert(inode.get()).second)
                used += inode->m_current.sectors() + inode->m_reserved.size();
        }
    }
    return used;
}

u64 CrashStorage::takeSectors(Inode& inode, u64 first, u64 count)
{
    if (m_capacity == ~u64{0})
        return count;
    const u64 used = usedLocked();
    u64 left = m_capacity - std::min(m_capacity, used);
    for (u64 sector = first; sector < first + count; ++sector) {
        if (inode.m_current.hasSector(sector) || inode.m_reserved.count(sector) != 0)
            continue;
        if (left-- == 0)
            return sector - first;
        inode.m_reserved.insert(sector);
    }
    return count;
}

void CrashStorage::noFaults()
{
    std::lock_guard<std::mutex> guard(m_mutex);
    m_faults.clear();
}

namespace {

// Every inode once, in an order that does not depend on addresses.
template <class Names, class NameChanges>
auto inodesOf(const Names& durable, const NameChanges& changes)
{
    std::vector<typename Names::mapped_type> inodes;
    const auto add = [&](const typename Names::mapped_type& inode) {
        if (inode && std::find(inodes.begin(), inodes.end(), inode) == inodes.end())
            inodes.push_back(inode);
    };
    for (const auto& [name, inode] : durable)
        add(inode);
    for (const auto& change : changes) {
        add(change.m_inode);
        add(change.m_otherInode);
    }
    return inodes;
}

} // namespace

size_t CrashStorage::unsynced() const
{
    size_t units = m_unsyncedNames.size();
    for (const InodePtr& inode : inodesOf(m_durable, m_unsyncedNames))
        units += inode->m_unsynced.size();
    return units;
}

std::unique_ptr<CrashStorage> CrashStorage::crash(const Chooser& fate) const
{
    auto image = std::make_unique<CrashStorage>();
    size_t unit = 0;
    Names names = m_durable;
    for (const NameChange& change : m_unsyncedNames) {
        // A name is there or not; a torn one counts as kept.
        if (fate(unit++).m_kind == Fate::Lost)
            continue;
        if (change.m_inode)
            names[change.m_name] = change.m_inode;
        else
            names.erase(change.m_name);
        if (change.m_otherInode)
            names[change.m_otherName] = change.m_otherInode;
    }
    std::map<const Inode*, InodePtr> made;
    for (const InodePtr& inode : inodesOf(m_durable, m_unsyncedNames)) {
        auto copy = std::make_shared<Inode>();
        copy->m_current = inode->m_durable.ownCopy();
        for (const Change& change : inode->m_unsynced) {
            const Fate what = fate(unit++);
            if (what.m_kind == Fate::Lost)
                continue;
            if (change.m_truncate)
                copy->m_current.truncate(change.m_offset);
            else
                copy->m_current.write(change.m_offset, change.m_data->data() + change.m_from,
                                      what.m_kind == Fate::Torn
                                          ? std::min<u64>(what.m_bytes, change.m_bytes)
                                          : change.m_bytes);
        }
        copy->m_durable = copy->m_current;
        made[inode.get()] = copy;
    }
    for (const auto& [name, inode] : names)
        image->m_current[name] = made.at(inode.get());
    image->m_durable = image->m_current;
    return image;
}

std::unique_ptr<CrashStorage> CrashStorage::restart() const
{
    return crash([](size_t) { return Fate{Fate::Kept, 0}; });
}

std::unique_ptr<CrashStorage> CrashStorage::takeOver() const
{
    auto next = std::make_unique<CrashStorage>();
    std::map<const Inode*, InodePtr> made;
    const auto copyOf = [&](const InodePtr& inode) {
        InodePtr& copy = made[inode.get()];
        if (inode && !copy) {
            copy = std::make_shared<Inode>(*inode);
            copy->m_current = inode->m_current.ownCopy();
            copy->m_durable = inode->m_durable.ownCopy();
            copy->m_locked = false;
        }
        return copy;
    };
    for (const auto& [name, inode] : m_current)
        next->m_current[name] = copyOf(inode);
    for (const auto& [name, inode] : m_durable)
        next->m_durable[name] = copyOf(inode);
    for (const NameChange& change : m_unsyncedNames)
        next->m_unsyncedNames.push_back({change.m_name, copyOf(change.m_inode), change.m_otherName,
                                         copyOf(change.m_otherInode)});
    return next;
}

std::vector<std::string> CrashStorage::files() const
{
    std::vector<std::string> names;
    for (const auto& [name, inode] : m_current)
        if (name.back() != '/')
            names.push_back(name);
    return names;
}

std::vector<u64> CrashStorage::sectorOffsets(const std::string& name) const
{
    return m_current.at(name)->m_current.sectorOffsets();
}

u64 CrashStorage::sizeOf(const std::string& name) const
{
    return m_current.at(name)->m_current.size();
}

u8 CrashStorage::byteAt(const std::string& name, u64 offset) const
{
    return m_current.at(name)->m_current.byteAt(offset);
}

void CrashStorage::setByte(const std::string& name, u64 offset, u8 value)
{
    m_current.at(name)->m_current.setByte(offset, value);
}

void CrashStorage::cutFile(const std::string& name, u64 sizeBytes)
{
    m_current.at(name)->m_current.truncate(sizeBytes);
}

void CrashStorage::dropFile(const std::string& name)
{
    m_current.erase(name);
}
