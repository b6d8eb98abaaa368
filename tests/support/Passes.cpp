#include "support/Passes.h"

#include <Qel/core/RenderPass.h>
#include <Qel/gl/OpenGLDeviceContext.h>
#include <Qel/gl/Texture.h>
#include <Qel/gl/TextureManager.h>

namespace Morvane::Qel::Test {

QVariant textureInput(Texture* texture)
{
    return QVariant::fromValue<QObject*>(texture);
}

Texture* outputTexture(const RenderPass& pass, int output)
{
    return qobject_cast<Texture*>(pass.output(output).value<QObject*>());
}

void runFrame(RenderPass& pass, const std::vector<QVariant>& inputs)
{
    for (size_t i = 0; i < inputs.size(); ++i) {
        pass.setInput(static_cast<int>(i), inputs[i]);
    }
    pass.resetNumOutputUsers();
    for (int i = 0; i < pass.numOutputs(); ++i) {
        pass.setNumOutputUsers(i, 1);
    }
    OpenGLDeviceContext::current()->applyBaseState();
    pass.beginFrame(nullptr);
    pass.start(nullptr);
    pass.endFrame(nullptr);
}

Pixels render(RenderPass& pass, const std::vector<QVariant>& inputs)
{
    runFrame(pass, inputs);
    Pixels picture = readTexture(outputTexture(pass));
    for (int i = 0; i < pass.numOutputs(); ++i) {
        TextureManager::Instance()->releaseTempTextureRef(outputTexture(pass, i), 1);
    }
    return picture;
}

} // namespace Morvane::Qel::Test
