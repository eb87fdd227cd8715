<?xml version="1.0" encoding="utf-8"?>
<!DOCTYPE TS>
<TS version="2.1" language="ru_RU">
<context>
    <name>ZHazeOne2One</name>
    <message>
        <source>Haze is an atmospheric phenomenon that can affect outdoor photos. Everything far from the shooter seems to be covered by a white layer.This plugin helps you to remove the haze and clean your photo. To do that, it analyses each pixel to calculate the depth of air.</source>
        <translation>Дымка - это атмосферное явление, которое может испортить снимки, сделанные вне помещения. Объекты, находящиеся вдали от фотографа, кажутся покрытыми белой пеленой. Этот плагин помогает очистить фотографии, удаляя дымку. Для этого он анализирует каждый пиксель и подсчитывает насыщенность воздуха.</translation>
    </message>
    <message>
        <source>_dehazed</source>
        <translation>_dehazed</translation>
    </message>
</context>
<context>
    <name>Library</name>
    <message>
        <source>Comment</source>
        <translation>Комментарий</translation>
    </message>
</context>
<context>
    <name>UIHazePreview</name>
    <message>
        <source>Preview is uptodate</source>
        <translation>Предварительный просмотр обновлен</translation>
    </message>
    <message>
        <source>The preview failed:
%1</source>
        <translation>Не удалось построить предварительный просмотр:
%1</translation>
    </message>
    <message>
        <source>unknown failure</source>
        <translation>неизвестная ошибка</translation>
    </message>
</context>
<context>
    <name>UIHazePreviewClass</name>
    <message>
        <source>Haze Correction</source>
        <translation>Коррекция дымки</translation>
    </message>
    <message>
        <source>Power</source>
        <translation>Интенсивность</translation>
    </message>
    <message>
        <source>Split preview</source>
        <translation>Разделить предварительный просмотр</translation>
    </message>
</context>
<context>
    <name>UIImageDefListWizard</name>
    <message>
        <source>Next</source>
        <translation>Вперед</translation>
    </message>
    <message>
        <source>Prev</source>
        <translation>Назад</translation>
    </message>
</context>
<context>
    <name>UIImageDefListWizardClass</name>
    <message>
        <source>...</source>
        <translation>...</translation>
    </message>
    <message>
        <source>Apply to all Images</source>
        <translation>Применить ко всем изображениям</translation>
    </message>
    <message>
        <source>WizardPage</source>
        <translation type="unfinished"></translation>
    </message>
</context>
</TS>
