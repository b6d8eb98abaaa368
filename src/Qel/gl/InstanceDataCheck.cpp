#include <epoxy/gl.h>

#include <Qel/core/Diagnostics.h>
#include <Qel/gl/InstanceData.h>
#include <Qel/gl/ShaderProgram.h>

// Separate from InstanceData.cpp because programs depend on the plans: only this check makes a plan depend on
// programs.

using namespace Qt::StringLiterals;

namespace Morvane::Qel {

bool InstanceDataPlan::assertShaderProgram(const ShaderProgram* program) const
{
    if (!QEL_CHECK(__FILE__, program != nullptr && program->programID() != 0,
                   u"plan \"%1\" needs a program that is built"_s.arg(m_name))) {
        return false;
    }
    const int index = program->uniformBlockIndex(m_name.toUtf8().constData());
    if (index < 0) {
        return true;
    }
    int size = 0;
    int binding = 0;
    const auto block = static_cast<unsigned int>(index);
    glGetActiveUniformBlockiv(program->programID(), block, GL_UNIFORM_BLOCK_DATA_SIZE, &size);
    glGetActiveUniformBlockiv(program->programID(), block, GL_UNIFORM_BLOCK_BINDING, &binding);
    return QEL_CHECK(__FILE__, size == blockSize() && static_cast<unsigned int>(binding) == m_bindingPoint,
                     u"block \"%1\" has %2 bytes at binding point %3, not %4 at %5"_s.arg(m_name)
                         .arg(size)
                         .arg(binding)
                         .arg(blockSize())
                         .arg(m_bindingPoint));
}

} // namespace Morvane::Qel
