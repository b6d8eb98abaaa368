#pragma once

#include <QtGlobal>

#if defined(QEL_STATIC)
#define QEL_CORE_EXPORT
#elif defined(QEL_CORE_BUILD)
#define QEL_CORE_EXPORT Q_DECL_EXPORT
#else
#define QEL_CORE_EXPORT Q_DECL_IMPORT
#endif
