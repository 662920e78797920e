#include "updater/UpdateError.h"

namespace quorva {

std::string DescribeError(const UpdateError& error, UpdateLanguage language) {
    const bool fr = language == UpdateLanguage::French;
    const std::string& detail = error.detail;
    switch (error.kind) {
    case UpdateError::Kind::HTTPStatus:
        return (fr ? "Le serveur de mise à jour a répondu HTTP " : "Update server returned HTTP ") + detail;
    case UpdateError::Kind::InvalidManifest:
        return fr ? "Format du manifeste de mise à jour invalide." : "Invalid update manifest format.";
    case UpdateError::Kind::NoZipAsset:
        return fr ? "Aucune archive .zip dans cette version." : "No .zip archive found in release.";
    case UpdateError::Kind::ChecksumMismatch:
        return fr ? "La vérification de la somme SHA-256 a échoué." : "SHA-256 checksum verification failed.";
    case UpdateError::Kind::ExtractionFailed:
        return (fr ? "L’extraction de l’archive a échoué : " : "Archive extraction failed: ") + detail;
    case UpdateError::Kind::AppBundleNotFound:
        return fr ? "Aucune application (dossier d’installation portable) dans l’archive."
                  : "No application (portable install folder) found in the archive.";
    case UpdateError::Kind::InvalidCodeSignature:
        return fr ? "La mise à jour téléchargée a une signature de code invalide."
                  : "The downloaded update has an invalid code signature.";
    case UpdateError::Kind::TeamIdentifierMismatch:
        return (fr ? "Clé de signature du code différente (attendue "
                   : "Code signing key mismatch (expected ") +
               error.expected + (fr ? ", trouvée " : ", found ") + detail + ").";
    case UpdateError::Kind::InstallerLaunchFailed:
        return (fr ? "Impossible de lancer l’installation : " : "Failed to launch installer: ") + detail;
    case UpdateError::Kind::NetworkFailed:
        return (fr ? "Le serveur de mise à jour est injoignable : " : "Could not reach the update server: ") +
               detail;
    case UpdateError::Kind::StorageFailed:
        return (fr ? "Impossible d’enregistrer la mise à jour : " : "Could not store the update: ") + detail;
    case UpdateError::Kind::PackageManaged:
        return fr ? "Cette copie de QuorvaRecorder (" + detail +
                        ") appartient au gestionnaire de paquets : mettez-la à jour avec lui "
                        "(sudo apt install --only-upgrade quorvarecorder)."
                  : "This copy of QuorvaRecorder (" + detail +
                        ") belongs to the package manager: update it there "
                        "(sudo apt install --only-upgrade quorvarecorder).";
    case UpdateError::Kind::NotPortable:
        return fr ? "Cette copie de QuorvaRecorder (" + detail +
                        ") n’est pas une installation portable : téléchargez la nouvelle version vous-même."
                  : "This copy of QuorvaRecorder (" + detail +
                        ") is not a portable install: download the new version yourself.";
    }
    return {};
}

} // namespace quorva
