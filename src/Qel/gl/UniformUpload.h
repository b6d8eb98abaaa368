#pragma once

#include <QVariant>
#include <QVector>

#include <initializer_list>

#include <Qel/gl/Uniform.h>

class QColor;

namespace Morvane::Qel {

/// \file
/// Sets uniforms of the current program, converting values to the type that the shader declares. Values that
/// do not fit that type, and uniforms that the program does not have, are ignored. Private to this library.

/// The component type and dimensions of one element of a uniform.
struct UniformShape
{
    enum Base
    {
        Float,
        /// Also samplers and images, which are set to their unit.
        Int,
        Bool,
        Unsigned,
        /// Doubles and non-square matrices.
        Unsupported
    };
    Base base;
    int rows;
    int columns;
};

UniformShape shapeOf(unsigned int type);

/// \name Setters of every element, in the declared base type (int for bool)
/// @{
void uploadElements(const ActiveUniform& uniform, const float* values);
void uploadElements(const ActiveUniform& uniform, const int* values);
void uploadElements(const ActiveUniform& uniform, const unsigned int* values);
/// @}

/// Sets a scalar or a vector. Double holds every number that the setters accept.
void uploadVector(const ActiveUniform& uniform, std::initializer_list<double> values);
/// Sets a matrix from the upper left part of a `size` x `size` matrix in column-major order.
void uploadMatrix(const ActiveUniform& uniform, const float* values, int size);
/// Sets the first elements of an array, as many as are both given and declared.
void uploadArray(const ActiveUniform& uniform, const QVector<float>& values);
/// Sets a vector to red, green, blue and alpha from 0 to 1.
void uploadColour(const ActiveUniform& uniform, const QColor& colour);
/// Sets a uniform by the value's own type; types without a conversion are ignored.
void uploadVariant(const ActiveUniform& uniform, const QVariant& value);

} // namespace Morvane::Qel
