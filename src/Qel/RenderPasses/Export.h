#pragma once

#include <QtGlobal>

#if defined(QEL_STATIC)
#define QEL_RENDERPASSES_EXPORT
#elif defined(QEL_RENDERPASSES_BUILD)
#define QEL_RENDERPASSES_EXPORT Q_DECL_EXPORT
#else
#define QEL_RENDERPASSES_EXPORT Q_DECL_IMPORT
#endif
