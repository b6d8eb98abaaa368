// What most sources include, for builds with QEL_PRECOMPILE_HEADERS.
#pragma once

#include <algorithm>
#include <array>
#include <cmath>
#include <functional>
#include <limits>
#include <memory>
#include <optional>
#include <set>
#include <utility>
#include <vector>

#include <epoxy/gl.h>

#include <QColor>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QHash>
#include <QImage>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QMatrix4x4>
#include <QRegularExpression>
#include <QSharedPointer>
#include <QStringList>
#include <QVariant>
