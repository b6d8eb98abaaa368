#include <Qel/gl/MemoryAccount.h>

#include <mutex>
#include <unordered_map>
#include <utility>

namespace Morvane::Qel {

namespace {

struct Entry
{
    /// The bytes of the account; shared with it, so that the object may outlive the account.
    std::shared_ptr<std::atomic<qint64>> sum;
    qint64 numBytes;
};

/// What each object holds. Apart from the objects, so that they stay as small as they are without accounts.
struct Ledger
{
    std::mutex mutex;
    std::unordered_map<const void*, Entry> entries;
};

Ledger& ledger()
{
    // Never destroyed, because objects with static storage duration may be destroyed later.
    static auto& ledger = *new Ledger;
    return ledger;
}

thread_local const MemoryAccount* activeAccount = nullptr;

} // namespace

MemoryAccount::MemoryAccount()
    : m_numBytes(std::make_shared<std::atomic<qint64>>(0))
    , m_loans(std::make_shared<Loans>())
{
}

MemoryAccount::Loans MemoryAccount::takeLoans()
{
    return std::exchange(*m_loans, {});
}

void MemoryAccount::allocated(const void* object, qint64 numBytes)
{
    const std::lock_guard lock(ledger().mutex);
    auto& entries = ledger().entries;
    auto entry = entries.find(object);
    if (entry != entries.end()) {
        *entry->second.sum -= entry->second.numBytes;
    } else if (activeAccount) {
        entry = entries.try_emplace(object).first;
    } else {
        return;
    }
    if (activeAccount) {
        entry->second.sum = activeAccount->m_numBytes;
    }
    entry->second.numBytes = numBytes;
    *entry->second.sum += numBytes;
}

void MemoryAccount::freed(const void* object)
{
    const std::lock_guard lock(ledger().mutex);
    const auto known = ledger().entries.find(object);
    if (known != ledger().entries.end()) {
        *known->second.sum -= known->second.numBytes;
        ledger().entries.erase(known);
    }
}

void MemoryAccount::lent(const void* texture)
{
    if (activeAccount) {
        const std::lock_guard lock(ledger().mutex);
        ++activeAccount->m_loans->numTextures;
        activeAccount->m_loans->numBytes += ledger().entries.at(texture).numBytes;
    }
}

MemoryAccount::Activation::Activation(const MemoryAccount* account)
    : m_previous(std::exchange(activeAccount, account))
{
}

MemoryAccount::Activation::~Activation()
{
    activeAccount = m_previous;
}

} // namespace Morvane::Qel
