#include "daemon/whttpd.h"

WHttpdState gWhttpd;

pthread_mutex_t gSessionTableMutex = PTHREAD_MUTEX_INITIALIZER;
pthread_mutex_t gSessionKeyMutex = PTHREAD_MUTEX_INITIALIZER;
pthread_mutex_t gDataModelMutex = PTHREAD_MUTEX_INITIALIZER;
