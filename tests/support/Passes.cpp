#include "support/Passes.h"

#include <Qel/core/PassDescription.h>
#include <Qel/gl/OpenGLDeviceContext.h>
#include <Qel/gl/TextureManager.h>

namespace Morvane::Qel::Test {

PassRunner::~PassRunner()
{
    releaseOutputs();
    if (m_isSetUp) {
        m_pass.teardown(nullptr);
    }
}

void PassRunner::set(const QString& name, const Input& value)
{
    for (int i = 0; i < m_pass.numInputs(); ++i) {
        if (PortName::parse(m_pass.inputName(i)).name == name) {
            m_pass.setInput(i, value.value());
            return;
        }
    }
    ADD_FAILURE() << "no input is called " << qPrintable(name);
}

void PassRunner::run(const std::vector<Input>& inputs)
{
    for (size_t i = 0; i < inputs.size(); ++i) {
        m_pass.setInput(static_cast<int>(i), inputs[i].value());
    }
    runAround([](RenderPass& pass) { pass.start(nullptr); });
}

void PassRunner::runAround(const std::function<void(RenderPass&)>& callStart)
{
    releaseOutputs();
    m_pass.resetNumOutputUsers();
    for (int i = 0; i < m_pass.numOutputs(); ++i) {
        m_pass.setNumOutputUsers(i, m_users);
    }
    if (!m_isSetUp) {
        m_pass.setup(nullptr);
        m_isSetUp = true;
    }
    OpenGLDeviceContext::current()->applyBaseState();
    m_pass.beginFrame(nullptr);
    callStart(m_pass);
    m_pass.endFrame(nullptr);
    m_held.assign(static_cast<size_t>(m_pass.numOutputs()), m_users);
}

Pixels PassRunner::render(const std::vector<Input>& inputs)
{
    run(inputs);
    return pixels();
}

Texture* PassRunner::texture(int output) const
{
    return qobject_cast<Texture*>(m_pass.output(output).value<QObject*>());
}

QVariant PassRunner::take(int output)
{
    int& held = m_held[static_cast<size_t>(output)];
    EXPECT_GT(held, 0) << "output " << output << " has no reference left";
    --held;
    return m_pass.output(output);
}

void PassRunner::releaseOutputs()
{
    for (size_t i = 0; i < m_held.size(); ++i) {
        TextureManager::Instance()->releaseTempTextureRef(texture(static_cast<int>(i)), m_held[i]);
    }
    m_held.clear();
}

} // namespace Morvane::Qel::Test
