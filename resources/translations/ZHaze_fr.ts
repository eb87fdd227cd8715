<?xml version="1.0" encoding="utf-8"?>
<!DOCTYPE TS>
<TS version="2.1" language="fr_FR">
<context>
    <name>ZHazeOne2One</name>
    <message>
        <source>Haze is an atmospheric phenomenon that can affect outdoor photos. Everything far from the shooter seems to be covered by a white layer.This plugin helps you to remove the haze and clean your photo. To do that, it analyses each pixel to calculate the depth of air.</source>
        <translation>La brume sèche est un phénomène atmosphérique qui peut affecter les photos d&apos;extérieur. Tout ce qui est éloigné du photographe semble être recouvert d&apos;un voile blanc. Ce plugin aide à retirer ce voile blanc et nettoie votre photo. Pour cela, il analyse chaque pixel pour calculer la profondeur de champ.</translation>
    </message>
    <message>
        <source>_dehazed</source>
        <translation type="unfinished"></translation>
    </message>
</context>
<context>
    <name>Library</name>
    <message>
        <source>Comment</source>
        <translation>Commentaire</translation>
    </message>
</context>
<context>
    <name>UIHazePreview</name>
    <message>
        <source>Preview is uptodate</source>
        <translation>La prévisualisation est à jour</translation>
    </message>
    <message>
        <source>The preview failed:
%1</source>
        <translation>La prévisualisation a échoué :
%1</translation>
    </message>
    <message>
        <source>unknown failure</source>
        <translation>échec inconnu</translation>
    </message>
</context>
<context>
    <name>UIHazePreviewClass</name>
    <message>
        <source>Haze Correction</source>
        <translation>Correction de la brume sèche</translation>
    </message>
    <message>
        <source>Power</source>
        <translation>Puissance</translation>
    </message>
    <message>
        <source>Split preview</source>
        <translation>Aperçu avant/après</translation>
    </message>
</context>
<context>
    <name>UIImageDefListWizard</name>
    <message>
        <source>Next</source>
        <translation>Suivant</translation>
    </message>
    <message>
        <source>Prev</source>
        <translation>Précédent</translation>
    </message>
</context>
<context>
    <name>UIImageDefListWizardClass</name>
    <message>
        <source>...</source>
        <translation type="unfinished"></translation>
    </message>
    <message>
        <source>Apply to all Images</source>
        <translation>Appliquer à toutes les images</translation>
    </message>
    <message>
        <source>WizardPage</source>
        <translation type="unfinished"></translation>
    </message>
</context>
</TS>
