#include "support/GLTest.h"

#include <Qel/gl/GLErrors.h>
#include <Qel/gl/TextureManager.h>

namespace Morvane::Qel::Test {

namespace {

MessageRecorder* activeRecorder = nullptr;

void record(QtMsgType type, const QMessageLogContext& /*context*/, const QString& text)
{
    const bool failure = type == QtCriticalMsg || type == QtWarningMsg || type == QtFatalMsg;
    (failure ? activeRecorder->failures : activeRecorder->information).append(text);
}

} // namespace

MessageRecorder::MessageRecorder()
{
    EXPECT_EQ(activeRecorder, nullptr);
    activeRecorder = this;
    qInstallMessageHandler(record);
}

MessageRecorder::~MessageRecorder()
{
    qInstallMessageHandler(nullptr);
    activeRecorder = nullptr;
}

void GLTest::SetUp()
{
    m_messages = std::make_unique<MessageRecorder>();
    HeadlessContext::Options options;
    options.device = HeadlessContext::Device::Software;
    options.debug = true;
    options.size = {64, 64};
    QString error;
    m_context = HeadlessContext::create(options, &error);
    ASSERT_TRUE(m_context) << qPrintable(error);
}

void GLTest::TearDown()
{
    if (m_context) {
        checkGLError(__FILE__, __LINE__);
        EXPECT_EQ(TextureManager::Instance()->numReferences(), 0) << "pooled textures are still referenced";
    }
    m_context.reset();
    for (const QString& message : m_messages->failures) {
        ADD_FAILURE() << "unexpected message: " << qPrintable(message);
    }
}

void GLTest::expectMessage(const QString& pattern)
{
    EXPECT_GT(takeMessages(pattern), 0) << "no message matches " << qPrintable(pattern);
}

qsizetype GLTest::takeMessages(const QString& pattern)
{
    const QRegularExpression expression(pattern);
    EXPECT_TRUE(expression.isValid()) << qPrintable(expression.errorString());
    return m_messages->failures.removeIf(
        [&](const QString& message) { return expression.match(message).hasMatch(); });
}

} // namespace Morvane::Qel::Test
