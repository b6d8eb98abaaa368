#pragma once

#include <QtGlobal>

#if defined(QEL_STATIC)
#define QEL_GL_EXPORT
#elif defined(QEL_GL_BUILD)
#define QEL_GL_EXPORT Q_DECL_EXPORT
#else
#define QEL_GL_EXPORT Q_DECL_IMPORT
#endif
