#include <QColor>

#include <vector>

#include <gtest/gtest.h>

#include <Qel/core/Diagnostics.h>
#include <Qel/core/RenderPassHelper.h>
#include <Qel/gl/DrawBuffers.h>
#include <Qel/gl/Texture.h>

using namespace Qt::StringLiterals;

namespace Morvane::Qel::Test {

namespace {

class Pass : public RenderPassHelper
{
public:
    using RenderPassHelper::declarePorts;
    using RenderPassHelper::m_inputs;
    using RenderPassHelper::m_outputs;
};

struct Message
{
    QtMsgType type;
    QString text;
    bool operator==(const Message&) const = default;
};

/// Tells the channels of Qt's message handler apart.
class ChannelRecorder
{
public:
    ChannelRecorder()
        : m_previous(qInstallMessageHandler(record))
    {
        received.clear();
    }
    ~ChannelRecorder() { qInstallMessageHandler(m_previous); }
    ChannelRecorder(const ChannelRecorder&) = delete;
    ChannelRecorder& operator=(const ChannelRecorder&) = delete;

    static inline std::vector<Message> received;

private:
    static void record(QtMsgType type, const QMessageLogContext& /*context*/, const QString& text)
    {
        received.push_back({type, text});
    }
    QtMessageHandler m_previous;
};

TEST(RenderPassHelper, PortsKeepTheirOrderAndDefaultsApartFromValues)
{
    PassDescription description;
    description.inputs = {{u"Qel_float_Z"_s, {}, {}, 2.5F},
                          {u"Qel_QelTexture*_A"_s, {}, {}},
                          {u"Qel_QColor_M"_s, {}, {}, QColor(1, 2, 3)}};
    description.outputs = {{u"Qel_int_Second"_s, {}}, {u"Qel_int_First"_s, {}}};
    Pass pass;
    pass.declarePorts(description);
    pass.addInput(u"Qel_int_Last"_s, 7);
    pass.addOutput(u"Qel_int_Third"_s);

    RenderPass& host = pass;
    QStringList inputs;
    for (int i = 0; i < host.numInputs(); ++i) {
        inputs.append(host.inputName(i));
        EXPECT_EQ(pass.m_inputs[static_cast<size_t>(i)].value, host.defaultValue(i)) << i;
    }
    EXPECT_EQ(inputs,
              QStringList({u"Qel_float_Z"_s, u"Qel_QelTexture*_A"_s, u"Qel_QColor_M"_s, u"Qel_int_Last"_s}));
    EXPECT_EQ(host.defaultValue(0), QVariant(2.5F));
    EXPECT_FALSE(host.defaultValue(1).isValid());
    QStringList outputs;
    for (int i = 0; i < host.numOutputs(); ++i) {
        outputs.append(host.outputName(i));
        EXPECT_FALSE(host.output(i).isValid()) << i;
    }
    EXPECT_EQ(outputs, QStringList({u"Qel_int_Second"_s, u"Qel_int_First"_s, u"Qel_int_Third"_s}));

    host.setInput(0, 9.0F);
    EXPECT_EQ(host.defaultValue(0), QVariant(2.5F));
    host.setDefaultValue(0, 4.0F);
    EXPECT_EQ(host.defaultValue(0), QVariant(4.0F));
    EXPECT_EQ(pass.m_inputs[0].value, QVariant(9.0F));
    pass.m_outputs[1].value = 5;
    EXPECT_EQ(host.output(1), QVariant(5));
    EXPECT_FALSE(host.output(0).isValid());
}

TEST(RenderPassHelper, FindsPortsByTheirExactName)
{
    Pass pass;
    pass.addInput(u"Qel_bool_Invert"_s);
    pass.addInput(u"Qel_Bool_Invert"_s);
    pass.addOutput(u"Qel_QelTexture*_Output"_s);
    EXPECT_EQ(pass.findInput(u"Qel_bool_Invert"_s), 0);
    EXPECT_EQ(pass.findInput(u"Qel_Bool_Invert"_s), 1);
    EXPECT_EQ(pass.findOutput(u"Qel_QelTexture*_Output"_s), 0);
    for (const char* name : {"Qel_BOOL_Invert", "Qel_bool_invert", "Qel_bool_Inver", "Qel_bool_Invert ",
                             "Qel_QelTexture*_Output", ""}) {
        EXPECT_EQ(pass.findInput(QString::fromLatin1(name)), -1) << name;
    }
    EXPECT_EQ(pass.findOutput(u"Qel_QelTexture*_output"_s), -1);
    EXPECT_EQ(pass.findOutput(u"Qel_bool_Invert"_s), -1);
}

TEST(RenderPassHelper, ReadsPointersTypedAndAsObjects)
{
    Texture texture;
    DrawBuffers batch;
    QObject object;
    Pass pass;
    pass.addInput(u"Qel_QelTexture*_A"_s);
    const auto read = [&](const QVariant& value) {
        pass.setInput(0, value);
        return pass.getInputPointer<Texture>(0);
    };
    EXPECT_EQ(read(QVariant::fromValue(&texture)), &texture);
    EXPECT_EQ(read(QVariant::fromValue<QObject*>(&texture)), &texture);

    EXPECT_EQ(read(QVariant::fromValue<QObject*>(&batch)), nullptr);
    EXPECT_EQ(read(QVariant::fromValue<QObject*>(&object)), nullptr);
    EXPECT_EQ(read(QVariant::fromValue(&batch)), nullptr);
    EXPECT_EQ(read(QVariant::fromValue<Texture*>(nullptr)), nullptr);
    EXPECT_EQ(read(QVariant::fromValue<QObject*>(nullptr)), nullptr);
    EXPECT_EQ(read(QVariant::fromValue<void*>(&texture)), nullptr);
    EXPECT_EQ(read({}), nullptr);
    EXPECT_EQ(read(1), nullptr);
    EXPECT_EQ(read(u"texture"_s), nullptr);

    pass.setInput(0, QVariant::fromValue<QObject*>(&batch));
    EXPECT_EQ(pass.getInputPointer<DrawBuffers>(0), &batch);
    // Hosts that find the types by name reach the same ones.
    EXPECT_EQ(QMetaType::fromName("Morvane::Qel::Texture*").id(), pointerMetaTypeId<Texture>());
    EXPECT_EQ(QMetaType::fromName("Morvane::Qel::DrawBuffers*").id(), pointerMetaTypeId<DrawBuffers>());
}

TEST(RenderPassHelper, IndicesThatDoNotExistReadEmptyAndAreReportedWhenWritten)
{
    Pass pass;
    pass.addInput(u"Qel_int_A"_s, 1);
    pass.addInput(u"Qel_int_B"_s, 2);
    pass.addOutput(u"Qel_int_C"_s);
    pass.m_outputs[0].value = 3;
    pass.setNumOutputUsers(0, 4);
    const ChannelRecorder recorder;
    for (const int index : {-1, 2, 1000000}) {
        EXPECT_EQ(pass.inputName(index), QString()) << index;
        EXPECT_EQ(pass.outputName(index), QString()) << index;
        EXPECT_FALSE(pass.defaultValue(index).isValid()) << index;
        EXPECT_FALSE(pass.output(index).isValid()) << index;
        EXPECT_TRUE(recorder.received.empty()) << "reading is silent";

        pass.setInput(index, 10);
        pass.setDefaultValue(index, 10);
        pass.setNumOutputUsers(index, 10);
        ASSERT_EQ(recorder.received.size(), 3U);
        for (const Message& message : recorder.received) {
            EXPECT_EQ(message.type, QtCriticalMsg);
            EXPECT_TRUE(message.text.contains(QString::number(index))) << qPrintable(message.text);
        }
        ChannelRecorder::received.clear();
    }
    EXPECT_EQ(pass.m_inputs[0].value, QVariant(1));
    EXPECT_EQ(pass.m_inputs[1].value, QVariant(2));
    EXPECT_EQ(pass.m_outputs[0].users, 4);
}

TEST(RenderPassHelper, ResettingTheUsersKeepsTheValues)
{
    Pass pass;
    pass.addOutput(u"Qel_int_A"_s);
    pass.addOutput(u"Qel_int_B"_s);
    pass.m_outputs[1].value = 6;
    pass.setErrorCode(0xFFFFFFFFU);
    pass.setNumOutputUsers(0, 2);
    pass.setNumOutputUsers(1, 3);
    EXPECT_EQ(pass.m_outputs[0].users, 2);
    EXPECT_EQ(pass.m_outputs[1].users, 3);
    pass.resetNumOutputUsers();
    EXPECT_EQ(pass.m_outputs[0].users, 0);
    EXPECT_EQ(pass.m_outputs[1].users, 0);
    EXPECT_EQ(pass.output(1), QVariant(6));
    EXPECT_EQ(pass.errorCode(), 0xFFFFFFFFU);
}

TEST(Diagnostics, HaveTheirFormatsAndChannels)
{
    const ChannelRecorder recorder;
    int numEvaluations = 0;
    logInformation("Core/A", 12, u"100 %s of "_s + QChar(0x00b5));
    logNotice("Core/A", 13, u"notice"_s);
    logCritical("Core/B", 14, u"broken"_s);
    logFailedCheck("Core/B", 15, "i %2 == 0", u"%1 is odd"_s);
    EXPECT_TRUE(QEL_CHECK("Core/C", ++numEvaluations == 1, u"fine"_s));
    const int line = __LINE__ + 1;
    EXPECT_FALSE(QEL_CHECK("Core/C", ++numEvaluations > 2, u"Unhandled depth format"_s));
    EXPECT_EQ(numEvaluations, 2);

    const std::vector<Message> expected{
        {QtDebugMsg, u"[Core/A:12] 100 %s of "_s + QChar(0x00b5)},
        {QtInfoMsg, u"[Core/A:13] notice"_s},
        {QtCriticalMsg, u"[Core/B:14] broken"_s},
        {QtCriticalMsg, u"[Core/B:15] [ !! ] Assertion 'i %2 == 0' failed: %1 is odd"_s},
        {QtCriticalMsg,
         u"[Core/C:%1] [ !! ] Assertion '++numEvaluations > 2' failed: Unhandled depth format"_s.arg(line)},
    };
    ASSERT_EQ(recorder.received.size(), expected.size());
    for (size_t i = 0; i < expected.size(); ++i) {
        EXPECT_EQ(recorder.received[i].type, expected[i].type) << i;
        EXPECT_EQ(recorder.received[i].text, expected[i].text) << qPrintable(recorder.received[i].text);
    }
}

TEST(PortName, SplitsNamesOfTheScheme)
{
    const struct
    {
        const char* fullName;
        const char* type;
        const char* name;
    } cases[] = {
        {"Qel_QelTexture*_FrameA", "QelTexture*", "FrameA"},
        {"Qel_float_BlurRadius", "float", "BlurRadius"},
        {"Qel_QList_InstanceData", "QList", "InstanceData"},
        {"Qel_QList_QelShadowMapManagerLight*_Lights", "QList_QelShadowMapManagerLight*", "Lights"},
        {"Qel_QelDrawBuffers*_", "QelDrawBuffers*", ""},
        {"Int_BlendMode", "int", "BlendMode"},
        // Of another form.
        {"Int_Other", "", "Int_Other"},
        {"qel_float_Radius", "", "qel_float_Radius"},
        {"MyQel_float_Radius", "", "MyQel_float_Radius"},
        {"Qel_Radius", "", "Qel_Radius"},
        {"Qel_", "", "Qel_"},
        {"Radius", "", "Radius"},
        {"", "", ""},
    };
    for (const auto& c : cases) {
        const PortName port = PortName::parse(QString::fromLatin1(c.fullName));
        EXPECT_EQ(port.type, QString::fromLatin1(c.type)) << c.fullName;
        EXPECT_EQ(port.name, QString::fromLatin1(c.name)) << c.fullName;
    }
}

} // namespace

} // namespace Morvane::Qel::Test
