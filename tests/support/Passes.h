#pragma once

#include <QVariant>

#include <functional>
#include <memory>
#include <type_traits>
#include <vector>

#include "support/Pixels.h"
#include <Qel/core/RenderPass.h>
#include <Qel/gl/DrawBuffers.h>
#include <Qel/gl/Texture.h>

namespace Morvane::Qel::Test {

/// A value for an input port. Pointers to objects, null too, may be given as they are or in a unique_ptr.
class Input
{
public:
    Input() = default;
    template<class T>
    Input(const T& value) // NOLINT(google-explicit-constructor)
    {
        if constexpr (std::is_same_v<T, QVariant>) {
            m_value = value;
        } else if constexpr (requires { typename T::deleter_type; }) {
            m_value = Input(value.get()).m_value;
        } else if constexpr (std::is_null_pointer_v<T> || std::is_convertible_v<T, Texture*> ||
                             std::is_convertible_v<T, DrawBuffers*>) {
            m_value = QVariant::fromValue<QObject*>(value);
        } else {
            m_value = QVariant::fromValue(value);
        }
    }

    const QVariant& value() const { return m_value; }

private:
    QVariant m_value;
};

/// Drives a pass as a host does: setup before the first frame, each frame from the base state, and teardown
/// at the end. Holds the references of the pooled outputs until the next frame or its own end.
class PassRunner
{
public:
    explicit PassRunner(RenderPass& pass)
        : m_pass(pass)
    {
    }
    ~PassRunner();
    PassRunner(const PassRunner&) = delete;
    PassRunner& operator=(const PassRunner&) = delete;

    /// Sets an input by index, or by the last part of its port name.
    void set(int input, const Input& value) { m_pass.setInput(input, value.value()); }
    void set(const QString& name, const Input& value);
    /// Sets how many consumers each output has from the next frame on; 1 at first.
    void setNumUsers(int users) { m_users = users; }

    /// Runs a frame. Inputs are in port order; those left out keep their values.
    void run(const std::vector<Input>& inputs = {});
    /// Runs a frame in which `callStart` calls start.
    void runAround(const std::function<void(RenderPass&)>& callStart);
    /// Runs a frame and reads its first output.
    Pixels render(const std::vector<Input>& inputs = {});

    /// The texture on an output, null where there is none.
    Texture* texture(int output = 0) const;
    Pixels pixels(int output = 0) const { return readTexture(texture(output)); }
    /// Hands an output with one of its references to another pass, which releases it.
    QVariant take(int output = 0);
    /// Releases the references of the outputs.
    void releaseOutputs();

private:
    RenderPass& m_pass;
    bool m_isSetUp = false;
    int m_users = 1;
    /// References held for each output.
    std::vector<int> m_held;
};

/// A pass with its runner; the constructor takes the arguments of the pass.
template<class Pass>
class Runner : private std::unique_ptr<Pass>, public PassRunner
{
public:
    template<class... Arguments>
    explicit Runner(Arguments&&... arguments)
        : std::unique_ptr<Pass>(std::make_unique<Pass>(std::forward<Arguments>(arguments)...))
        , PassRunner(*std::unique_ptr<Pass>::get())
    {
    }
    using std::unique_ptr<Pass>::operator->;
    using std::unique_ptr<Pass>::operator*;
};

} // namespace Morvane::Qel::Test
