#pragma once

#include <QImage>
#include <QObject>
#include <QTimer>

#include <vector>

#include <Qel/gl/Image.h>

#include "GraphSession.h"

namespace Morvane::Qel::Viewer {

class TextureView;

/// What the panels show of an output.
struct OutputInfo
{
    OutputName name;
    QString shortName;
    /// "1280x720 RGBA16F"; the value itself for an output that is no texture.
    QString format;
    QImage thumbnail;
    bool isTexture = false;
    double numBytes = 0.0;

    bool operator==(const OutputInfo& other) const = default;
};

/// Follows the outputs of the frames with small pictures, at a pace that costs a fortieth of the time.
class OutputStore : public QObject
{
    Q_OBJECT
public:
    OutputStore(GraphSession& session, TextureView& view, QObject* parent);

    const std::vector<OutputInfo>& outputs() const { return m_outputs; }
    const OutputInfo* find(const OutputName& name) const;
    /// Bytes of all different textures among the outputs.
    double numBytes() const { return m_numBytes; }
    /// Textures in the pool of the context.
    int numPoolTextures() const { return m_numPoolTextures; }

    /// The values of every output at the texel of the shown one, by their names.
    QHash<QString, QString> valuesAt(const QPoint& texel);

Q_SIGNALS:
    /// Something in `outputs` has changed.
    void updated();

private:
    void update();

    GraphSession& m_session;
    TextureView& m_view;
    std::vector<OutputInfo> m_outputs;
    double m_numBytes = 0.0;
    int m_numPoolTextures = 0;
    QTimer m_timer;
};

/// A picture of values: colours as they are, and a single channel stretched to its range.
QImage thumbnailImage(const Image& values, int numChannels, bool isInteger);

} // namespace Morvane::Qel::Viewer
