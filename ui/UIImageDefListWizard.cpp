#include "ui/UIImageDefListWizard.h"

#include "plugin/ZIApplication.h"

#include <QComboBox>
#include <QCoreApplication>
#include <QEvent>
#include <QGridLayout>
#include <QPushButton>
#include <QSpacerItem>
#include <QToolButton>

UIImageDefListWizard::UIImageDefListWizard(QWidget* parent) : QWizardPage(parent) {
    setupUi();
    // Renamed after connectSlotsByName, so that the slots keep the form's
    // names while a host's style sheet finds the buttons by these.
    toolButtonPrev->setObjectName(QStringLiteral("QToolButton_Prev"));
    toolButtonNext->setObjectName(QStringLiteral("QToolButton_Next"));
    retranslateUi();
}

UIImageDefListWizard::~UIImageDefListWizard() = default;

void UIImageDefListWizard::setupUi() {
    setObjectName(QStringLiteral("UIImageDefListWizardClass"));
    resize(400, 306);
    gridLayout = new QGridLayout(this);
    gridLayout->setObjectName(QStringLiteral("gridLayout"));

    widget = new QWidget(this);
    widget->setObjectName(QStringLiteral("widget"));
    widget->setSizePolicy(QSizePolicy::Expanding, QSizePolicy::Expanding);
    gridLayout->addWidget(widget, 0, 0, 1, 5);

    toolButtonPrev = new QToolButton(this);
    toolButtonPrev->setObjectName(QStringLiteral("toolButtonPrev"));
    toolButtonPrev->setArrowType(Qt::LeftArrow);
    toolButtonPrev->setShortcut(QKeySequence(Qt::CTRL | Qt::Key_PageUp));
    gridLayout->addWidget(toolButtonPrev, 1, 0);

    comboBoxImageDef = new QComboBox(this);
    comboBoxImageDef->setObjectName(QStringLiteral("comboBoxImageDef"));
    comboBoxImageDef->setSizeAdjustPolicy(QComboBox::AdjustToContents);
    comboBoxImageDef->setMinimumContentsLength(16);
    gridLayout->addWidget(comboBoxImageDef, 1, 1);

    toolButtonNext = new QToolButton(this);
    toolButtonNext->setObjectName(QStringLiteral("toolButtonNext"));
    toolButtonNext->setArrowType(Qt::RightArrow);
    toolButtonNext->setShortcut(QKeySequence(Qt::CTRL | Qt::Key_PageDown));
    gridLayout->addWidget(toolButtonNext, 1, 2);

    pushButtonApplyAll = new QPushButton(this);
    pushButtonApplyAll->setObjectName(QStringLiteral("pushButtonApplyAll"));
    gridLayout->addWidget(pushButtonApplyAll, 1, 3);

    spacerItem = new QSpacerItem(137, 20, QSizePolicy::Expanding, QSizePolicy::Minimum);
    gridLayout->addItem(spacerItem, 1, 4);
    gridLayout->setRowStretch(0, 1);

    QMetaObject::connectSlotsByName(this);
}

void UIImageDefListWizard::retranslateUi() {
    setWindowTitle(QCoreApplication::translate("UIImageDefListWizardClass", "WizardPage"));
    pushButtonApplyAll->setText(
        QCoreApplication::translate("UIImageDefListWizardClass", "Apply to all Images"));
    toolButtonPrev->setToolTip(tr("Prev"));
    toolButtonNext->setToolTip(tr("Next"));
    if (m_content) setWindowTitle(m_content->windowTitle());
}

void UIImageDefListWizard::changeEvent(QEvent* event) {
    if (event->type() == QEvent::LanguageChange) retranslateUi();
    QWizardPage::changeEvent(event);
}

void UIImageDefListWizard::setContent(QWidget* content) {
    m_content = content;
    gridLayout->addWidget(content, 0, 0, 1, -1);
    setWindowTitle(content->windowTitle());
}

bool UIImageDefListWizard::isComplete() const {
    if (!m_content) return true;
    const QVariant complete = m_content->property("isComplete");
    return !complete.isValid() || complete.toBool();
}

void UIImageDefListWizard::setImages(const ImageMap& map) {
    imagesReplaced();
    m_images = map;
    comboBoxImageDef->blockSignals(true);
    comboBoxImageDef->clear();
    for (auto it = m_images.cbegin(); it != m_images.cend(); ++it)
        comboBoxImageDef->addItem(it.key()->name(),
                                  QVariant::fromValue(static_cast<void*>(it.key())));
    comboBoxImageDef->blockSignals(false);
    on_comboBoxImageDef_currentIndexChanged(comboBoxImageDef->currentIndex());
}

ZIHostImage* UIImageDefListWizard::currentImage() const {
    const int index = comboBoxImageDef->currentIndex();
    if (index < 0) return nullptr;
    return static_cast<ZIHostImage*>(
        comboBoxImageDef->itemData(index, Qt::UserRole).value<void*>());
}

void UIImageDefListWizard::on_comboBoxImageDef_currentIndexChanged(int index) {
    if (index == -1) return;
    ZIHostImage* image =
        static_cast<ZIHostImage*>(comboBoxImageDef->itemData(index, Qt::UserRole).value<void*>());
    setImage(image, m_images.value(image, nullptr));
}

void UIImageDefListWizard::on_toolButtonPrev_clicked() {
    const int index = comboBoxImageDef->currentIndex();
    const int count = static_cast<int>(m_images.size());
    if (index == -1 || count == 0) return;
    comboBoxImageDef->setCurrentIndex((count + index - 1) % count);
}

void UIImageDefListWizard::on_toolButtonNext_clicked() {
    const int index = comboBoxImageDef->currentIndex();
    const int count = static_cast<int>(m_images.size());
    if (index == -1 || count == 0) return;
    comboBoxImageDef->setCurrentIndex((index + 1) % count);
}

void UIImageDefListWizard::on_pushButtonApplyAll_clicked() {
    applyToAll();
}
