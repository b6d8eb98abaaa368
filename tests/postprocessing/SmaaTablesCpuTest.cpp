#include <QCryptographicHash>

#include <gtest/gtest.h>

#include <Qel/RenderPasses/support/SmaaTables.h>

namespace Morvane::Qel::Test {
namespace {

template<size_t Size>
std::string sha256(const std::array<unsigned char, Size>& bytes)
{
    const QByteArrayView view(bytes.data(), static_cast<qsizetype>(Size));
    return QCryptographicHash::hash(view, QCryptographicHash::Sha256).toHex().toStdString();
}

// The hashes are those of the tables that were published with the method, rows in GL's order.
TEST(SmaaTables, EqualThePublishedOnes)
{
    EXPECT_EQ(sha256(smaaAreaTable), "35065cef2a02cabcad711d6bf430239ae64e27d71c4e4fa06f29cce2c992f0d2");
    EXPECT_EQ(sha256(smaaSearchTable), "3694eae5e9d44b8ebb4415a13f8c7b94dc08a2fc86658434d771c4610fe5744d");
}

} // namespace
} // namespace Morvane::Qel::Test
