#include "velt/threads/ThreadJob.h"

IThreadContext::~IThreadContext() = default;
IThreadJob::~IThreadJob() = default;
IThreadTask::~IThreadTask() = default;
IThreadOwner::~IThreadOwner() = default;
