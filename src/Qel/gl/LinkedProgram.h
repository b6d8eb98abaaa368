#pragma once

#include <QByteArray>
#include <QHash>
#include <QString>

#include <memory>
#include <variant>
#include <vector>

#include <Qel/gl/Uniform.h>

namespace Morvane::Qel {

struct AttributeLayout;

/// A linked GL program with its active attributes and uniforms, which are read from GL once, so that the next
/// program of the same sources can reuse it. Does not own the GL object. Private to this library.
struct LinkedProgram
{
    /// The elements of a uniform right after linking.
    struct InitialValue
    {
        ActiveUniform uniform;
        std::variant<std::vector<float>, std::vector<int>, std::vector<unsigned int>> elements;
    };

    /// The GL name; 0 for none.
    unsigned int name = 0;
    /// The first locations of its attributes: bit i stands for location i.
    unsigned int attributeMask = 0;
    std::shared_ptr<const AttributeLayout> attributes;
    QHash<QByteArray, ActiveUniform> uniforms;
    std::vector<InitialValue> initialValues;
    QString log;

    /// Reads attributes, uniforms and their initial values from GL.
    void readInterface();
    /// Sets all uniforms back to their initial values; the program must be bound.
    void restoreInitialValues() const;
};

} // namespace Morvane::Qel
