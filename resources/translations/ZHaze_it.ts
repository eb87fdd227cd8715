<?xml version="1.0" encoding="utf-8"?>
<!DOCTYPE TS>
<TS version="2.1" language="it_IT">
<context>
    <name>ZHazeOne2One</name>
    <message>
        <source>Haze is an atmospheric phenomenon that can affect outdoor photos. Everything far from the shooter seems to be covered by a white layer.This plugin helps you to remove the haze and clean your photo. To do that, it analyses each pixel to calculate the depth of air.</source>
        <translation>La foschia è un fenomeno atmosferico che può influire sulle foto all&apos;aperto. Ogni cosa lontana sembra essere coperta da una patina bianca.Questo plugin aiuta a rimuovere la foschia e a rendere la foto pulita. Il sistema riesce ad ottenere ciò analizzando ogni singolo pixel per calcolare la profondità di aria.</translation>
    </message>
    <message>
        <source>_dehazed</source>
        <translation>_senza foschia</translation>
    </message>
</context>
<context>
    <name>Library</name>
    <message>
        <source>Comment</source>
        <translation>Commento</translation>
    </message>
</context>
<context>
    <name>UIHazePreview</name>
    <message>
        <source>Preview is uptodate</source>
        <translation>L&apos;anteprima è aggiornata</translation>
    </message>
    <message>
        <source>The preview failed:
%1</source>
        <translation>L'anteprima non è riuscita:
%1</translation>
    </message>
    <message>
        <source>unknown failure</source>
        <translation>errore sconosciuto</translation>
    </message>
</context>
<context>
    <name>UIHazePreviewClass</name>
    <message>
        <source>Haze Correction</source>
        <translation>Correzione della Foschia</translation>
    </message>
    <message>
        <source>Power</source>
        <translation>Potenza</translation>
    </message>
    <message>
        <source>Split preview</source>
        <translation>Anteprima divisa</translation>
    </message>
</context>
<context>
    <name>UIImageDefListWizard</name>
    <message>
        <source>Next</source>
        <translation>Successivo</translation>
    </message>
    <message>
        <source>Prev</source>
        <translation>Precedente</translation>
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
        <translation>Applica a tutte le Immagini</translation>
    </message>
    <message>
        <source>WizardPage</source>
        <translation>PaginaDelWizard</translation>
    </message>
</context>
</TS>
