#include <tuple>
#include <vector>

#include <gtest/gtest.h>

#include <Qel/core/Diagnostics.h>
#include <Qel/core/RenderPassHelper.h>
#include <Qel/gl/DrawBuffers.h>
#include <Qel/gl/Texture.h>

using namespace Qt::StringLiterals;

namespace Morvane::Qel::Test {

namespace {

struct Pass : RenderPassHelper
{
    using RenderPassHelper::declarePorts;
    using RenderPassHelper::m_inputs;
    using RenderPassHelper::m_outputs;
};

using Message = std::pair<QtMsgType, QString>;
std::vector<Message> received;

/// Records the messages of a test with their levels.
struct CoreTest : testing::Test
{
    CoreTest()
    {
        received.clear();
        qInstallMessageHandler([](QtMsgType type, const QMessageLogContext&, const QString& text) {
            received.emplace_back(type, text);
        });
    }
    ~CoreTest() override { qInstallMessageHandler(nullptr); }
};

TEST_F(CoreTest, PortsKeepTheirOrderAndTheirDefaultsApartFromTheirValues)
{
    PassDescription description;
    description.inputs = {{u"Qel_float_Z"_s, {}, {}, 2.5F}, {u"Qel_QelTexture*_A"_s, {}, {}}};
    description.outputs = {{u"Qel_int_Second"_s, {}}, {u"Qel_int_First"_s, {}}};
    Pass pass;
    pass.declarePorts(description);
    pass.addInput(u"Qel_int_M"_s, 7);
    pass.addOutput(u"Qel_int_Third"_s);
    const std::vector<std::pair<QString, QVariant>> inputs{
        {u"Qel_float_Z"_s, 2.5F}, {u"Qel_QelTexture*_A"_s, {}}, {u"Qel_int_M"_s, 7}};
    for (int i = 0; i < 3; ++i) {
        const auto& [name, value] = inputs[static_cast<size_t>(i)];
        EXPECT_EQ(pass.inputName(i), name);
        EXPECT_EQ(pass.defaultValue(i), value);
        EXPECT_EQ(pass.m_inputs[static_cast<size_t>(i)].value, value);
        EXPECT_EQ(pass.findInput(name), i);
    }
    EXPECT_EQ(pass.outputName(0), u"Qel_int_Second"_s);
    EXPECT_EQ(pass.outputName(2), u"Qel_int_Third"_s);
    EXPECT_EQ(pass.findOutput(u"Qel_int_First"_s), 1);
    // Names are found exactly, inputs apart from outputs.
    for (const QString& name : {u"Qel_int_m"_s, u"Qel_int_"_s, u"Qel_int_First"_s, QString()}) {
        EXPECT_EQ(pass.findInput(name), -1) << qPrintable(name);
    }
    EXPECT_EQ(pass.findOutput(u"Qel_int_M"_s), -1);

    pass.setInput(0, 9.0F);
    EXPECT_EQ(pass.defaultValue(0), QVariant(2.5F));
    pass.setDefaultValue(0, 4.0F);
    EXPECT_EQ(pass.defaultValue(0), QVariant(4.0F));
    EXPECT_EQ(pass.m_inputs[0].value, QVariant(9.0F));

    // Resetting the user counts leaves values and error code alone.
    pass.m_outputs[1].value = 5;
    pass.setErrorCode(0xFFFFFFFFU);
    pass.setNumOutputUsers(1, 3);
    EXPECT_EQ(pass.m_outputs[1].users, 3);
    pass.resetNumOutputUsers();
    EXPECT_EQ(pass.m_outputs[1].users, 0);
    EXPECT_EQ(pass.output(1), QVariant(5));
    EXPECT_EQ(pass.errorCode(), 0xFFFFFFFFU);
}

TEST_F(CoreTest, PointersAreReadTypedAndAsObjects)
{
    Texture texture;
    DrawBuffers batch;
    Pass pass;
    pass.addInput(u"Qel_QelTexture*_A"_s);
    const auto read = [&](const QVariant& value) {
        pass.setInput(0, value);
        return pass.getInputPointer<Texture>(0);
    };
    EXPECT_EQ(read(QVariant::fromValue(&texture)), &texture);
    EXPECT_EQ(read(QVariant::fromValue<QObject*>(&texture)), &texture);
    for (const QVariant& other : {QVariant::fromValue<QObject*>(&batch), QVariant::fromValue(&batch),
                                  QVariant::fromValue<void*>(&texture), QVariant(), QVariant(1)}) {
        EXPECT_EQ(read(other), nullptr) << other.typeName();
    }
    // Hosts that look the types up by name get the same ones.
    EXPECT_EQ(QMetaType::fromName("Morvane::Qel::Texture*").id(), pointerMetaTypeId<Texture>());
}

TEST_F(CoreTest, IndicesThatDoNotExistReadAsEmptyAndAreReportedWhenWritten)
{
    Pass pass;
    pass.addInput(u"Qel_int_A"_s, 1);
    pass.addOutput(u"Qel_int_B"_s);
    pass.setNumOutputUsers(0, 4);
    for (const int index : {-1, 1}) {
        EXPECT_EQ(pass.inputName(index), QString());
        EXPECT_EQ(pass.outputName(index), QString());
        EXPECT_FALSE(pass.defaultValue(index).isValid());
        EXPECT_FALSE(pass.output(index).isValid());
        EXPECT_TRUE(received.empty()) << "reading is silent";

        pass.setInput(index, 10);
        pass.setDefaultValue(index, 10);
        pass.setNumOutputUsers(index, 10);
        ASSERT_EQ(received.size(), 3U);
        for (size_t i = 0; i < 3; ++i) {
            EXPECT_EQ(received[i].first, QtCriticalMsg);
            const QString kind = i < 2 ? u"input"_s : u"output"_s;
            EXPECT_TRUE(
                received[i].second.contains(u"there is no %1 %2; the pass has 1"_s.arg(kind).arg(index)));
        }
        received.clear();
    }
    EXPECT_EQ(pass.m_inputs[0].value, QVariant(1));
    EXPECT_EQ(pass.m_outputs[0].users, 4);
}

TEST_F(CoreTest, MessagesHaveTheirFormatsAndLevels)
{
    int numEvaluations = 0;
    logInformation("Core/A", 12, u"100 %s of "_s + QChar(0x00b5));
    logNotice("Core/A", 13, u"notice"_s);
    logCritical("Core/B", 14, u"broken"_s);
    logFailedCheck("Core/B", 15, "i %2 == 0", u"%1 is odd"_s);
    EXPECT_TRUE(QEL_CHECK("Core/C", ++numEvaluations == 1, u"fine"_s));
    const int line = __LINE__ + 1;
    EXPECT_FALSE(QEL_CHECK("Core/C", ++numEvaluations > 2, u"off"_s));
    EXPECT_EQ(numEvaluations, 2);
    const std::vector<Message> expected{
        {QtDebugMsg, u"[Core/A:12] 100 %s of "_s + QChar(0x00b5)},
        {QtInfoMsg, u"[Core/A:13] notice"_s},
        {QtCriticalMsg, u"[Core/B:14] broken"_s},
        {QtCriticalMsg, u"[Core/B:15] [ !! ] Assertion 'i %2 == 0' failed: %1 is odd"_s},
        {QtCriticalMsg, u"[Core/C:%1] [ !! ] Assertion '++numEvaluations > 2' failed: off"_s.arg(line)},
    };
    EXPECT_EQ(received, expected);
}

TEST_F(CoreTest, PortNamesAreSplit)
{
    for (const auto& [fullName, type, name] : std::vector<std::tuple<QString, QString, QString>>{
             {u"Qel_QList_QelLight*_Lights"_s, u"QList_QelLight*"_s, u"Lights"_s},
             {u"Qel_QelTexture*_Src_A"_s, u"QelTexture*"_s, u"Src_A"_s},
             {u"Qel_QList_InstanceData"_s, u"QList"_s, u"InstanceData"_s},
             {u"Qel_QelDrawBuffers*_"_s, u"QelDrawBuffers*"_s, {}},
             {u"Int_BlendMode"_s, u"int"_s, u"BlendMode"_s},
             // Names of another form.
             {u"Int_Other"_s, {}, u"Int_Other"_s},
             {u"MyQel_float_Radius"_s, {}, u"MyQel_float_Radius"_s},
             {u"Qel_Radius"_s, {}, u"Qel_Radius"_s},
             {{}, {}, {}}}) {
        const PortName port = PortName::parse(fullName);
        EXPECT_EQ(port.type, type) << qPrintable(fullName);
        EXPECT_EQ(port.name, name) << qPrintable(fullName);
    }
}

} // namespace

} // namespace Morvane::Qel::Test
