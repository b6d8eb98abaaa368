#pragma once

#include <QtGlobal>

#include <atomic>
#include <memory>

#include <Qel/gl/Export.h>

namespace Morvane::Qel {

/// Counts the bytes of textures and buffers, to tell which part of a program holds them. What is allocated
/// while an account is active on the thread belongs to it until it is destroyed or allocated anew under
/// another account. Copies of an account are the same account. The bytes are those of the format and the
/// size; drivers may need more.
class QEL_GL_EXPORT MemoryAccount
{
public:
    struct Loans
    {
        int numTextures = 0;
        qint64 numBytes = 0;
    };

    MemoryAccount();

    /// Returns the bytes of what belongs to the account.
    qint64 numBytes() const { return *m_numBytes; }
    /// Returns what was taken from the pool of textures while the account was active, since the last call.
    /// The pool's textures belong to its own account.
    Loans takeLoans();

    /// The account of the textures in the current context's pool.
    static MemoryAccount ofPool();

    /// Makes an account the active one of this thread for its own lifetime; null for none.
    class QEL_GL_EXPORT Activation
    {
    public:
        explicit Activation(const MemoryAccount* account);
        ~Activation();
        Activation(const Activation&) = delete;
        Activation& operator=(const Activation&) = delete;

    private:
        const MemoryAccount* m_previous;
    };

    /// \name For classes that own memory
    /// @{

    /// Says that an object holds so many bytes now; they belong to the active account or, without one, to
    /// that of the object's previous bytes.
    static void allocated(const void* object, qint64 numBytes);
    /// Says that an object holds no bytes any more. May be called on any thread.
    static void freed(const void* object);
    /// Says that a texture of the pool was taken.
    static void lent(const void* texture);
    /// @}

private:
    std::shared_ptr<std::atomic<qint64>> m_numBytes;
    std::shared_ptr<Loans> m_loans;
};

} // namespace Morvane::Qel
