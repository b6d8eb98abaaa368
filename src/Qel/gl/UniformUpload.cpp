#include <Qel/gl/UniformUpload.h>

#include <QColor>
#include <QGenericMatrix>
#include <QMatrix4x4>
#include <QRectF>
#include <QSizeF>
#include <QVarLengthArray>
#include <QVector2D>
#include <QVector3D>
#include <QVector4D>

#include <algorithm>
#include <array>
#include <limits>

#include <epoxy/gl.h>

namespace Morvane::Qel {

namespace {

int toInt(double value)
{
    constexpr double lowest = std::numeric_limits<int>::min();
    constexpr double highest = std::numeric_limits<int>::max();
    return value >= lowest && value <= highest ? static_cast<int>(value) : 0;
}

/// Negative values wrap around, as in GLSL.
unsigned int toUnsigned(double value)
{
    constexpr double highest = std::numeric_limits<unsigned int>::max();
    return value >= 0.0 && value <= highest ? static_cast<unsigned int>(value)
                                            : static_cast<unsigned int>(toInt(value));
}

void upload(int location, const UniformShape& shape, int count, const float* values)
{
    switch (shape.rows) {
    case 1:
        glUniform1fv(location, count, values);
        break;
    case 2:
        shape.columns == 2 ? glUniformMatrix2fv(location, count, GL_FALSE, values)
                           : glUniform2fv(location, count, values);
        break;
    case 3:
        shape.columns == 3 ? glUniformMatrix3fv(location, count, GL_FALSE, values)
                           : glUniform3fv(location, count, values);
        break;
    default:
        shape.columns == 4 ? glUniformMatrix4fv(location, count, GL_FALSE, values)
                           : glUniform4fv(location, count, values);
        break;
    }
}

void upload(int location, const UniformShape& shape, int count, const int* values)
{
    switch (shape.rows) {
    case 1:
        glUniform1iv(location, count, values);
        break;
    case 2:
        glUniform2iv(location, count, values);
        break;
    case 3:
        glUniform3iv(location, count, values);
        break;
    default:
        glUniform4iv(location, count, values);
        break;
    }
}

void upload(int location, const UniformShape& shape, int count, const unsigned int* values)
{
    switch (shape.rows) {
    case 1:
        glUniform1uiv(location, count, values);
        break;
    case 2:
        glUniform2uiv(location, count, values);
        break;
    case 3:
        glUniform3uiv(location, count, values);
        break;
    default:
        glUniform4uiv(location, count, values);
        break;
    }
}

/// Converts the values of `count` elements to the declared type and uploads them. Short lists stay off the
/// heap.
template<class Value>
void convertAndUpload(int location, const UniformShape& shape, int count, const Value* values)
{
    const int numValues = count * shape.rows * shape.columns;
    const auto uploadAs = [&]<class Target>(Target (*convert)(double)) {
        QVarLengthArray<Target, 64> converted(numValues);
        std::transform(values, values + numValues, converted.begin(),
                       [convert](Value value) { return convert(static_cast<double>(value)); });
        upload(location, shape, count, converted.constData());
    };
    switch (shape.base) {
    case UniformShape::Float:
        if constexpr (std::is_same_v<Value, float>) {
            upload(location, shape, count, values);
        } else {
            uploadAs(+[](double value) { return static_cast<float>(value); });
        }
        break;
    case UniformShape::Int:
        uploadAs(toInt);
        break;
    case UniformShape::Bool:
        uploadAs(+[](double value) { return value != 0.0 ? 1 : 0; });
        break;
    case UniformShape::Unsigned:
        uploadAs(toUnsigned);
        break;
    case UniformShape::Unsupported:
        break;
    }
}

} // namespace

UniformShape shapeOf(unsigned int type)
{
    switch (type) {
    case GL_FLOAT:
        return {UniformShape::Float, 1, 1};
    case GL_FLOAT_VEC2:
        return {UniformShape::Float, 2, 1};
    case GL_FLOAT_VEC3:
        return {UniformShape::Float, 3, 1};
    case GL_FLOAT_VEC4:
        return {UniformShape::Float, 4, 1};
    case GL_FLOAT_MAT2:
        return {UniformShape::Float, 2, 2};
    case GL_FLOAT_MAT3:
        return {UniformShape::Float, 3, 3};
    case GL_FLOAT_MAT4:
        return {UniformShape::Float, 4, 4};
    case GL_INT_VEC2:
        return {UniformShape::Int, 2, 1};
    case GL_INT_VEC3:
        return {UniformShape::Int, 3, 1};
    case GL_INT_VEC4:
        return {UniformShape::Int, 4, 1};
    case GL_BOOL:
        return {UniformShape::Bool, 1, 1};
    case GL_BOOL_VEC2:
        return {UniformShape::Bool, 2, 1};
    case GL_BOOL_VEC3:
        return {UniformShape::Bool, 3, 1};
    case GL_BOOL_VEC4:
        return {UniformShape::Bool, 4, 1};
    case GL_UNSIGNED_INT:
        return {UniformShape::Unsigned, 1, 1};
    case GL_UNSIGNED_INT_VEC2:
        return {UniformShape::Unsigned, 2, 1};
    case GL_UNSIGNED_INT_VEC3:
        return {UniformShape::Unsigned, 3, 1};
    case GL_UNSIGNED_INT_VEC4:
        return {UniformShape::Unsigned, 4, 1};
    case GL_FLOAT_MAT2x3:
    case GL_FLOAT_MAT2x4:
    case GL_FLOAT_MAT3x2:
    case GL_FLOAT_MAT3x4:
    case GL_FLOAT_MAT4x2:
    case GL_FLOAT_MAT4x3:
    case GL_DOUBLE:
    case GL_DOUBLE_VEC2:
    case GL_DOUBLE_VEC3:
    case GL_DOUBLE_VEC4:
    case GL_DOUBLE_MAT2:
    case GL_DOUBLE_MAT3:
    case GL_DOUBLE_MAT4:
    case GL_DOUBLE_MAT2x3:
    case GL_DOUBLE_MAT2x4:
    case GL_DOUBLE_MAT3x2:
    case GL_DOUBLE_MAT3x4:
    case GL_DOUBLE_MAT4x2:
    case GL_DOUBLE_MAT4x3:
        return {UniformShape::Unsupported, 0, 0};
    default:
        return {UniformShape::Int, 1, 1};
    }
}

void uploadElements(const ActiveUniform& uniform, const float* values)
{
    upload(uniform.location, shapeOf(uniform.type), uniform.arraySize, values);
}

void uploadElements(const ActiveUniform& uniform, const int* values)
{
    upload(uniform.location, shapeOf(uniform.type), uniform.arraySize, values);
}

void uploadElements(const ActiveUniform& uniform, const unsigned int* values)
{
    upload(uniform.location, shapeOf(uniform.type), uniform.arraySize, values);
}

void uploadVector(const ActiveUniform& uniform, std::initializer_list<double> values)
{
    const UniformShape shape = shapeOf(uniform.type);
    if (uniform.location >= 0 && shape.columns == 1 && shape.rows <= static_cast<int>(values.size())) {
        convertAndUpload(uniform.location, shape, 1, values.begin());
    }
}

void uploadMatrix(const ActiveUniform& uniform, const float* values, int size)
{
    const UniformShape shape = shapeOf(uniform.type);
    if (uniform.location < 0 || shape.columns < 2 || shape.columns > size) {
        return;
    }
    std::array<float, 16> part{};
    for (int column = 0; column < shape.columns; ++column) {
        std::copy_n(values + column * size, shape.rows, part.begin() + column * shape.rows);
    }
    upload(uniform.location, shape, 1, part.data());
}

void uploadArray(const ActiveUniform& uniform, const QVector<float>& values)
{
    const UniformShape shape = shapeOf(uniform.type);
    if (uniform.location < 0 || shape.base == UniformShape::Unsupported) {
        return;
    }
    const int numGiven = static_cast<int>(values.size()) / (shape.rows * shape.columns);
    if (const int count = std::min(numGiven, uniform.arraySize); count > 0) {
        convertAndUpload(uniform.location, shape, count, values.constData());
    }
}

void uploadColour(const ActiveUniform& uniform, const QColor& colour)
{
    const QColor rgb = colour.toRgb();
    uploadVector(uniform, {rgb.redF(), rgb.greenF(), rgb.blueF(), rgb.alphaF()});
}

void uploadVariant(const ActiveUniform& uniform, const QVariant& value)
{
    switch (value.typeId()) {
    case QMetaType::Bool:
    case QMetaType::Int:
    case QMetaType::UInt:
    case QMetaType::LongLong:
    case QMetaType::ULongLong:
    case QMetaType::Float:
    case QMetaType::Double:
        uploadVector(uniform, {value.toDouble()});
        break;
    case QMetaType::QPoint:
    case QMetaType::QPointF: {
        const QPointF point = value.toPointF();
        uploadVector(uniform, {point.x(), point.y()});
        break;
    }
    case QMetaType::QSize:
    case QMetaType::QSizeF: {
        const QSizeF size = value.toSizeF();
        uploadVector(uniform, {size.width(), size.height()});
        break;
    }
    case QMetaType::QRect:
    case QMetaType::QRectF: {
        const QRectF rectangle = value.toRectF();
        uploadVector(uniform, {rectangle.x(), rectangle.y(), rectangle.width(), rectangle.height()});
        break;
    }
    case QMetaType::QColor:
        uploadColour(uniform, value.value<QColor>());
        break;
    case QMetaType::QVector2D: {
        const auto vector = value.value<QVector2D>();
        uploadVector(uniform, {vector.x(), vector.y()});
        break;
    }
    case QMetaType::QVector3D: {
        const auto vector = value.value<QVector3D>();
        uploadVector(uniform, {vector.x(), vector.y(), vector.z()});
        break;
    }
    case QMetaType::QVector4D: {
        const auto vector = value.value<QVector4D>();
        uploadVector(uniform, {vector.x(), vector.y(), vector.z(), vector.w()});
        break;
    }
    case QMetaType::QMatrix4x4:
        uploadMatrix(uniform, value.value<QMatrix4x4>().constData(), 4);
        break;
    default:
        if (value.metaType() == QMetaType::fromType<QVector<float>>()) {
            uploadArray(uniform, value.value<QVector<float>>());
        } else if (value.metaType() == QMetaType::fromType<QMatrix3x3>()) {
            uploadMatrix(uniform, value.value<QMatrix3x3>().constData(), 3);
        }
        break;
    }
}

} // namespace Morvane::Qel
