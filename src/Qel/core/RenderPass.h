#pragma once

#include <QString>
#include <QVariant>

#include <Qel/core/Export.h>

namespace Morvane::Qel {

class RenderCallbacks;

/// The abstract interface through which a host drives a pass. The order of the virtual operations is part
/// of the binary interface.
///
/// Life of a pass: construction (declares ports, makes no GL calls), setup once, then for each frame the
/// inputs and user counts are set and beginFrame, start and endFrame run, at last teardown and destruction.
/// Everything runs on the thread on which the pass's GL context is current.
class QEL_CORE_EXPORT RenderPass
{
public:
    virtual ~RenderPass();

    /// GPU set-up before the first frame.
    virtual void setup(RenderCallbacks* callbacks) = 0;
    virtual void beginFrame(RenderCallbacks* callbacks) = 0;
    /// Does the pass's work for this frame: reads the inputs, renders, sets the outputs.
    virtual void start(RenderCallbacks* callbacks) = 0;
    virtual void endFrame(RenderCallbacks* callbacks) = 0;
    /// Whether the work of the last start is complete.
    virtual bool isFinished() const = 0;
    /// Frees what setup made.
    virtual void teardown(RenderCallbacks* callbacks) = 0;

    virtual int numInputs() const = 0;
    virtual int numOutputs() const = 0;
    virtual QString inputName(int index) const = 0;
    virtual QString outputName(int index) const = 0;
    /// Sets the value of an input; in force until it is set again.
    virtual void setInput(int index, const QVariant& value) = 0;
    virtual QVariant defaultValue(int index) const = 0;
    /// Changes the default of an input; the input's value stays as it is.
    virtual void setDefaultValue(int index, const QVariant& value) = 0;
    /// The value that the last start produced; invalid where it produced none.
    virtual QVariant output(int index) const = 0;
    /// Tells how many consumers an output has. A pooled texture is published with that many references.
    virtual void setNumOutputUsers(int index, int users) = 0;
    virtual void resetNumOutputUsers() = 0;
    /// 0 means no error.
    virtual unsigned int errorCode() const = 0;
    virtual void setErrorCode(unsigned int code) = 0;
};

} // namespace Morvane::Qel
