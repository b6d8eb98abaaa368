#pragma once

#include <QtGlobal>

#if defined(QEL_STATIC)
#define QEL_GRAPH_EXPORT
#elif defined(QEL_GRAPH_BUILD)
#define QEL_GRAPH_EXPORT Q_DECL_EXPORT
#else
#define QEL_GRAPH_EXPORT Q_DECL_IMPORT
#endif
