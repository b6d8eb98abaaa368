#pragma once

#include <vector>

#include <Qel/core/MetaTypes.h>
#include <Qel/core/PassDescription.h>
#include <Qel/core/RenderPass.h>

namespace Morvane::Qel {

/// The base class of all passes, which keeps their ports. Ports are addressed by index in the order of
/// declaration. Reading an index that does not exist returns an empty value; writing to it is reported as
/// critical and has no effect.
class QEL_CORE_EXPORT RenderPassHelper : public RenderPass
{
public:
    RenderPassHelper();
    ~RenderPassHelper() override;
    RenderPassHelper(const RenderPassHelper&) = delete;
    RenderPassHelper& operator=(const RenderPassHelper&) = delete;

    void setup(RenderCallbacks* callbacks) override;
    void beginFrame(RenderCallbacks* callbacks) override;
    void start(RenderCallbacks* callbacks) override;
    void endFrame(RenderCallbacks* callbacks) override;
    bool isFinished() const override;
    void teardown(RenderCallbacks* callbacks) override;
    int numInputs() const override;
    int numOutputs() const override;
    QString inputName(int index) const override;
    QString outputName(int index) const override;
    void setInput(int index, const QVariant& value) override;
    QVariant defaultValue(int index) const override;
    void setDefaultValue(int index, const QVariant& value) override;
    QVariant output(int index) const override;
    void setNumOutputUsers(int index, int users) override;
    void resetNumOutputUsers() override;
    unsigned int errorCode() const override;
    void setErrorCode(unsigned int code) override;

    /// Returns the index of the input with exactly this name, -1 if there is none.
    int findInput(const QString& name) const;
    /// Returns the index of the output with exactly this name, -1 if there is none.
    int findOutput(const QString& name) const;

    /// Appends a port. Public so that hosts can add ports to a ShaderRenderPass; other passes declare theirs
    /// in the constructor.
    void addInput(const QString& name, const QVariant& defaultValue = {});
    void addOutput(const QString& name);

    /// Returns the object on an input, given as T* or as QObject*; null if the input is unconnected or holds
    /// anything else. The index must exist.
    template<class T>
    T* getInputPointer(int index)
    {
        return pointerFromVariant<T>(m_inputs[static_cast<size_t>(index)].value);
    }

protected:
    struct Input
    {
        QString name;
        QVariant value;
        QVariant defaultValue;
    };
    struct Output
    {
        QString name;
        QVariant value;
        int users = 0;
    };

    /// Appends the ports of a description in its order.
    void declarePorts(const PassDescription& description);

    /// Accessed by the passes directly, by index.
    std::vector<Input> m_inputs;
    std::vector<Output> m_outputs;

private:
    unsigned int m_errorCode = 0;
};

} // namespace Morvane::Qel
