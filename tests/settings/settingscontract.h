#pragma once

#include "tests/support/temporarytree.h"

#include <tulo/settings.h>

#include <QObject>
#include <QString>
#include <QStringList>
#include <QVariant>

#include <memory>

namespace tulo {

/// What every kind of settings promises, in the same words: the tests of tulo::Settings. A test
/// program derives the kind that it opens, with Q_OBJECT, and adds what is that kind's own.
///
/// Each test function has settings and trees of its own, which its rows share: between two of them
/// the writable tree is emptied.
class SettingsContract : public QObject
{
    Q_OBJECT

protected:
    /// The settings of these trees, for reading and changing. A flush of them waits for no disk.
    virtual std::unique_ptr<Settings> open(const TemporaryTree& tree) = 0;
    /// Before the settings are opened, and after they were destroyed.
    virtual void begin() { }
    virtual void end() { }
    /// The process that serves the settings will log this, as WARN or worse.
    virtual void expectRecord(const QString& message);

    Settings& settings() const { return *m_settings; }
    const TemporaryTree& tree() const { return *m_tree; }

private slots:
    void init();
    void cleanup();
    void cleanupTestCase();

    void reading_data();
    void reading();
    void readingWithoutRolesAnswersAllThatThereAre();
    void readingManyAnswersEachInItsPlace();
    void readingTooManyIsAnError();
    void doubleThatIsWrittenAsAnIntegerIsADouble();
    void nullsAndZeroCharactersAreLeftOut();
    void fileThatCannotBeReadIsUnavailable();
    void relativePathIsServed();

    void rows_data();
    void rows();
    void rowsComeInPages();
    void rowThatCannotBeServedKeepsItsPlace();

    void explaining_data();
    void explaining();
    void explanationIsWhatReadingAnswers_data();
    void explanationIsWhatReadingAnswers();
    void explanationTellsOfAChangeThatIsNotWritten();
    void explanationTellsOfAChangeThatIsWritten();
    void explanationTellsWhatIsKeptFromEarlier();
    void explanationLeavesHiddenSecretsOut();

    void setTakesEveryNumberType_data();
    void setTakesEveryNumberType();
    void setStores_data();
    void setStores();
    void valueIsAdjusted_data();
    void valueIsAdjusted();
    void valueIsRejected_data();
    void valueIsRejected();
    void changeIsRefused_data();
    void changeIsRefused();
    void setRoles_data();
    void setRoles();
    void apply_data();
    void apply();
    void newSettingIsMadeFromItsTemplate();

    void dryRunChangesNothing_data();
    void dryRunChangesNothing();
    void changeOnCondition_data();
    void changeOnCondition();

    void manyChangesAreMadeTogether();
    void manyChangesAreAllOrNone_data();
    void manyChangesAreAllOrNone();
    void manyChangesOnATrial();
    void manyChangesTakeRoles();
    void manyChangesHaveNoConditions();
    void newSettingsOfOneRequestCount();

    void settingIsReset();
    void unchangedSettingIsNotReset();
    void resetIsRefused_data();
    void resetIsRefused();
    void pendingChangesAreResetAndOthersWritten();
    void damagedFileIsReset();
    void recursiveReset_data();
    void recursiveReset();
    void readOnlySettingIsResetRecursively();
    void resetRemovesSettingsMadeAtRunTime();
    void resetRemovesWhatOlderImagesLeft();
    void resetLeavesOtherFilesAlone();
    void resetAnnouncesWhatReadsDifferently();
    void changesAroundAResetKeepTheirOrder();

    void eventsComeInOrderBeforeTheAnswer();
    void sameValueIsAnnouncedAsData();
    void newSettingIsAnnouncedAsARow();
    void rejectedChangeIsNotAnnounced();
    void treeWatchSeesEverythingBelow();
    void settingThatIsMadeLaterCanBeWatched();
    void relativePathCanBeWatched();
    void encryptedValueIsNotAnnounced();
    void watchOfARefusedPathFails_data();
    void watchOfARefusedPathFails();
    void destroyedWatchSeesNothing();

    void answerComesLater();
    void answersComeInTheOrderOfTheRequests();
    void cancelledReplyStaysCancelled();
    void repliesOfDestroyedSettingsAreCancelled();
    void settingsMayBeDestroyedInsideOfAnEvent();
    void settingsMayBeDestroyedInsideOfAnAnswer();

    void changeIsOnDiskAfterAFlush();
    void replacedTreeIsNotSaved();
    void dropCacheReadsTheFilesAgain();
    void treeDigestTellsDefaultTreesApart();
    void statusTells();
    void statisticsCount();

private:
    QString m_function; ///< that the settings were opened for
    std::unique_ptr<TemporaryTree> m_tree;
    std::unique_ptr<Settings> m_settings;
};

} // namespace tulo
