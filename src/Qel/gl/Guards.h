#pragma once

#include <QSharedPointer>

#include <Qel/gl/Bindable.h>

namespace Morvane::Qel {

/// Binds for its lifetime and restores the previous binding. A null binds nothing.
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

/// Enables a GL capability for its lifetime and restores what the context's record held before.
class QEL_GL_EXPORT AutoEnabler
{
public:
    explicit AutoEnabler(unsigned int capability);
    ~AutoEnabler();
    AutoEnabler(const AutoEnabler&) = delete;
    AutoEnabler& operator=(const AutoEnabler&) = delete;

private:
    unsigned int m_capability;
    bool m_wasEnabled;
};

/// Disables a GL capability for its lifetime and restores what the context's record held before.
class QEL_GL_EXPORT AutoDisabler
{
public:
    explicit AutoDisabler(unsigned int capability);
    ~AutoDisabler();
    AutoDisabler(const AutoDisabler&) = delete;
    AutoDisabler& operator=(const AutoDisabler&) = delete;

private:
    unsigned int m_capability;
    bool m_wasEnabled;
};

} // namespace Morvane::Qel
