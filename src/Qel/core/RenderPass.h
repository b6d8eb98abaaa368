#pragma once

#include <QString>
#include <QVariant>

#include <Qel/core/Export.h>

namespace Morvane::Qel {

class RenderCallbacks;

/// The interface through which a host drives a pass. The order of the virtual functions is part of the binary
/// interface.
///
/// Lifecycle: the constructor declares the ports and makes no GL calls; setup runs once. In each frame the
/// host sets inputs and user counts and calls beginFrame, start and endFrame. At the end it calls teardown
/// and the destructor. All calls are made on the thread on which the pass's GL context is current.
class QEL_CORE_EXPORT RenderPass
{
public:
    virtual ~RenderPass();

    /// Prepares GPU resources before the first frame.
    virtual void setup(RenderCallbacks* callbacks) = 0;
    virtual void beginFrame(RenderCallbacks* callbacks) = 0;
    /// Executes the pass: reads the inputs, renders and sets the outputs.
    virtual void start(RenderCallbacks* callbacks) = 0;
    virtual void endFrame(RenderCallbacks* callbacks) = 0;
    /// Returns whether the work of the last start is complete.
    virtual bool isFinished() const = 0;
    /// Releases what setup created.
    virtual void teardown(RenderCallbacks* callbacks) = 0;

    virtual int numInputs() const = 0;
    virtual int numOutputs() const = 0;
    virtual QString inputName(int index) const = 0;
    virtual QString outputName(int index) const = 0;
    /// Sets the value of an input, which stays until it is set again.
    virtual void setInput(int index, const QVariant& value) = 0;
    virtual QVariant defaultValue(int index) const = 0;
    /// Changes the default of an input but not its current value.
    virtual void setDefaultValue(int index, const QVariant& value) = 0;
    /// Returns the value that the last start produced; invalid if there is none.
    virtual QVariant output(int index) const = 0;
    /// Sets the number of consumers of an output. A pooled texture is published with one reference for each.
    virtual void setNumOutputUsers(int index, int users) = 0;
    /// Sets the number of consumers of every output to 0.
    virtual void resetNumOutputUsers() = 0;
    /// Returns the error code of the pass; 0 means no error.
    virtual unsigned int errorCode() const = 0;
    virtual void setErrorCode(unsigned int code) = 0;
};

} // namespace Morvane::Qel
