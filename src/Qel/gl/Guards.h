#pragma once

#include <QSharedPointer>

#include <Qel/gl/Bindable.h>

namespace Morvane::Qel {

/// Binds an object for its own lifetime and then restores the previous binding. Null binds nothing.
class QEL_GL_EXPORT AutoBinder
{
public:
    explicit AutoBinder(Bindable* bindable);
    explicit AutoBinder(const QSharedPointer<Bindable>& bindable);
    ~AutoBinder();
    AutoBinder(const AutoBinder&) = delete;
    AutoBinder& operator=(const AutoBinder&) = delete;

private:
    Bindable* m_bindable;
    QSharedPointer<Bindable> m_owner;
};

/// Enables or disables a GL capability for its lifetime and then restores the previous state.
class QEL_GL_EXPORT CapabilityGuard
{
public:
    CapabilityGuard(unsigned int capability, bool enabled);
    ~CapabilityGuard();
    CapabilityGuard(const CapabilityGuard&) = delete;
    CapabilityGuard& operator=(const CapabilityGuard&) = delete;

private:
    unsigned int m_capability;
    bool m_wasEnabled;
};

/// Enables a GL capability for its lifetime and then restores the previous state.
class AutoEnabler : private CapabilityGuard
{
public:
    explicit AutoEnabler(unsigned int capability)
        : CapabilityGuard(capability, true)
    {
    }
};

/// Disables a GL capability for its lifetime and then restores the previous state.
class AutoDisabler : private CapabilityGuard
{
public:
    explicit AutoDisabler(unsigned int capability)
        : CapabilityGuard(capability, false)
    {
    }
};

} // namespace Morvane::Qel
