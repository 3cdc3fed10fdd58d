#include "plugin/cabstractjournal.h"

CAbstractJournal::~CAbstractJournal() = default;
