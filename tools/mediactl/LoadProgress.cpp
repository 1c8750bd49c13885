#include "tools/mediactl/LoadProgress.h"

#include "UI/media_server/MediaServerState.h"
#include "tools/mediactl/DataValuesClient.h"
#include "tools/mediactl/MediaCtl.h"
#include "tools/mediactl/MediaCtlSupport.h"

#include <cstdio>

using MediaCtlSupport::fail;

namespace {

const char kState[] = "MEDIA2_serverState";
const char kProgress[] = "MEDIA2_bufferProgress";

bool isFailure(int state)
{
    return state == MediaV2::PlaybackError || state == MediaV2::MediaFetchError || state == MediaV2::NoMedia;
}

} // namespace

LoadProgress::LoadProgress(DataValuesClient* values)
    : mValues(values)
{
    connect(mValues, &DataValuesClient::changed, this, &LoadProgress::changed);
}

// Subscribes first, then reads the values, so a change in between is not missed.
int LoadProgress::run()
{
    if (!mValues->subscribe() || !read(QLatin1String(kState)) || !read(QLatin1String(kProgress)))
        return fail(QStringLiteral("load: ") + mValues->error());
    show();
    if (!isOver())
        mLoop.exec();
    std::fputs("\n", stdout);
    return isFailure(mState.value(0, MediaV2::NoMedia).toInt()) ? MediaCtl::False : MediaCtl::True;
}

bool LoadProgress::read(const QString& name)
{
    bool valid = false;
    QVariant value;
    if (!mValues->get(name, &valid, &value))
        return false;
    changed(name, valid, value);
    return true;
}

void LoadProgress::changed(const QString& name, bool valid, const QVariant& value)
{
    if (name == QLatin1String(kState))
        mState = valid ? value.toList() : QVariantList();
    else if (name == QLatin1String(kProgress))
        mProgress = valid ? value : QVariant();
    else
        return;
    show();
    if (isOver())
        mLoop.quit();
}

// "\r" goes back to the start of the line and "\033[K" clears what a longer line left.
void LoadProgress::show()
{
    const QString state = mState.isEmpty() ? QStringLiteral("-") : DataValuesClient::text(QLatin1String(kState), mState);
    const QString buffered = mProgress.isValid() ? QString::number(int(mProgress.toDouble() * 100)) + QStringLiteral(" %") : QStringLiteral("-");
    const QString line = QStringLiteral("%1, buffered %2").arg(state, buffered);
    if (line == mShown)
        return;
    mShown = line;
    std::printf("\r%s\033[K", qPrintable(line));
    std::fflush(stdout);
}

bool LoadProgress::isOver() const
{
    if (mState.isEmpty())
        return false;
    const int state = mState.at(0).toInt();
    return state == MediaV2::Loaded || state == MediaV2::Playing || state == MediaV2::Paused || state == MediaV2::PlaybackComplete
        || isFailure(state);
}
