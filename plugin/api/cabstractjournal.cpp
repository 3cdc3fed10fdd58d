#include "plugin/api/cabstractjournal.h"

CAbstractJournal::~CAbstractJournal() = default;
