#pragma once

#include <QRegularExpression>
#include <QStringList>

#include <memory>

#include <gtest/gtest.h>

#include <Qel/gl/HeadlessContext.h>

namespace Morvane::Qel::Test {

/// Collects what goes through Qt's message handler while it lives, and passes it on to the one before.
class MessageRecorder
{
public:
    MessageRecorder();
    ~MessageRecorder();
    MessageRecorder(const MessageRecorder&) = delete;
    MessageRecorder& operator=(const MessageRecorder&) = delete;

    /// Messages of the critical and warning channels.
    QStringList failures;
    /// Messages of the debug and information channels.
    QStringList information;
};

/// A test on a debug context of the software rasteriser. Anything on the critical or warning channel fails
/// it, GL errors and undefined behaviour among them, unless the test expects it; so do loans left in the
/// texture pool.
class GLTest : public testing::Test
{
protected:
    void SetUp() override;
    void TearDown() override;

    /// Says that the messages so far that match are wanted, and fails when there is none.
    void expectMessage(const QString& pattern);
    /// Forgets the messages that match a regular expression, which may be none; returns their number.
    qsizetype takeMessages(const QString& pattern);

    HeadlessContext& context() { return *m_context; }
    const MessageRecorder& messages() const { return *m_messages; }

private:
    std::unique_ptr<MessageRecorder> m_messages;
    std::unique_ptr<HeadlessContext> m_context;
};

} // namespace Morvane::Qel::Test
