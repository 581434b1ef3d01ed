#pragma once

#include <QAbstractButton>
#include <functional>

// The suite's on/off switch. A click flips it and tells the delegate (swithChange, the
// suite's own spelling); setOn() from code tells nobody.
class VkSwitchButton : public QAbstractButton {
    Q_OBJECT
  public:
    explicit VkSwitchButton(QWidget* parent = nullptr);

    bool isOn() const { return isChecked(); }
    void setOn(bool on) { setChecked(on); }
    // Called after a user's click has flipped the switch.
    void setMondoSwithDelegate(std::function<void(VkSwitchButton*)> swithChange) {
        swithChange_ = std::move(swithChange);
    }

    // The word drawn on the switch for its state, from the strings table.
    QString stateText() const;
    QSize sizeHint() const override { return QSize(52, 26); }

  protected:
    void paintEvent(QPaintEvent* event) override;
    void nextCheckState() override;

  private:
    std::function<void(VkSwitchButton*)> swithChange_;
};
