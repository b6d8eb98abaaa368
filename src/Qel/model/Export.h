#pragma once

#include <QtGlobal>

#if defined(QEL_STATIC)
#define QEL_MODEL_EXPORT
#elif defined(QEL_MODEL_BUILD)
#define QEL_MODEL_EXPORT Q_DECL_EXPORT
#else
#define QEL_MODEL_EXPORT Q_DECL_IMPORT
#endif
