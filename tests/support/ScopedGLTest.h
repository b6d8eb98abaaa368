#pragma once

#include <memory>

#include "support/GLTest.h"
#include <Qel/gl/ResourceScope.h>

namespace Morvane::Qel::Test {

/// Deletes at the end, as a graph does, what the passes of the test leave alive on purpose.
class ScopedGLTest : public GLTest
{
protected:
    void SetUp() override
    {
        GLTest::SetUp();
        m_scope = std::make_unique<ResourceScope>();
        m_activation = std::make_unique<ResourceScope::Activation>(m_scope.get());
    }
    void TearDown() override
    {
        m_activation.reset();
        m_scope.reset();
        GLTest::TearDown();
    }

    const ResourceScope& scope() const { return *m_scope; }

private:
    std::unique_ptr<ResourceScope> m_scope;
    std::unique_ptr<ResourceScope::Activation> m_activation;
};

} // namespace Morvane::Qel::Test
