#pragma once

#include <vector>

#include <Qel/core/MetaTypes.h>
#include <Qel/core/PassDescription.h>
#include <Qel/core/RenderPass.h>

namespace Morvane::Qel {

/// The bookkeeping of ports that every pass inherits. Ports are addressed by their index in the order of
/// declaration. An index that does not exist reads as empty and is reported when it is written.
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

    /// The index of the port of exactly this name, -1 when there is none.
    int findInput(const QString& name) const;
    int findOutput(const QString& name) const;

    /// Appends a port. Public for hosts that give a ShaderRenderPass its ports; other passes declare theirs
    /// in their constructors.
    void addInput(const QString& name, const QVariant& defaultValue = {});
    void addOutput(const QString& name);

    /// Reads a pointer-valued input, given typed (T*) or as a QObject* that is a T. Null is how a pass learns
    /// that an input is unconnected. The index must exist.
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

    /// Declares the ports of a table, in its order.
    void declarePorts(const PassDescription& description);

    /// Read and written directly by the passes, by index.
    std::vector<Input> m_inputs;
    std::vector<Output> m_outputs;

private:
    unsigned int m_errorCode = 0;
};

} // namespace Morvane::Qel
