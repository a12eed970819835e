// PKI.js signs, verifies, encrypts and decrypts a CMS structure. Standard input and output are the octets in and out; the
// one argument is a JSON object, with files by path: {action, certificate, key, root, structure, scheme, digest, detached,
// transport, cipher}.
import { webcrypto } from "node:crypto";
import { readFileSync } from "node:fs";
import * as asn1js from "asn1js";
import * as pkijs from "pkijs";

const task = JSON.parse(process.argv[2]);
pkijs.setEngine("node", new pkijs.CryptoEngine({ name: "node", crypto: webcrypto }));

const derOf = (file) =>
  new Uint8Array(Buffer.from(readFileSync(file, "latin1").replace(/-----[^-]+-----/g, ""), "base64"));
const certificateIn = (file) => pkijs.Certificate.fromBER(derOf(file));
const octets = (buffer) => new Uint8Array(buffer).slice().buffer;
const given = octets(readFileSync(0));

const importKey = () => {
  const hash = "SHA-" + (task.digest ?? "sha256").slice(3);
  const algorithm = {
    rsa: { name: "RSASSA-PKCS1-v1_5", hash },
    pss: { name: "RSA-PSS", hash },
    ecdsa: { name: "ECDSA", namedCurve: "P-256" },
    "ecdsa-384": { name: "ECDSA", namedCurve: "P-384" },
    "ecdsa-521": { name: "ECDSA", namedCurve: "P-521" },
    ed25519: { name: "Ed25519" },
  }[task.scheme];
  return webcrypto.subtle.importKey("pkcs8", derOf(task.key), algorithm, true, ["sign"]);
};

async function sign() {
  const certificate = certificateIn(task.certificate);
  const hash = "SHA-" + (task.digest ?? "sha256").slice(3);
  const digest = await webcrypto.subtle.digest(hash, given);
  const attribute = (type, value) => new pkijs.Attribute({ type, values: [value] });
  const signed = new pkijs.SignedData({
    version: 1,
    encapContentInfo: new pkijs.EncapsulatedContentInfo({
      eContentType: pkijs.ContentInfo.DATA,
      ...(task.detached ? {} : { eContent: new asn1js.OctetString({ valueHex: given }) }),
    }),
    signerInfos: [
      new pkijs.SignerInfo({
        version: 1,
        sid: new pkijs.IssuerAndSerialNumber({ issuer: certificate.issuer, serialNumber: certificate.serialNumber }),
        signedAttrs: new pkijs.SignedAndUnsignedAttributes({
          type: 0,
          attributes: [
            attribute("1.2.840.113549.1.9.3", new asn1js.ObjectIdentifier({ value: pkijs.ContentInfo.DATA })),
            attribute("1.2.840.113549.1.9.5", new asn1js.UTCTime({ valueDate: new Date() })),
            attribute("1.2.840.113549.1.9.4", new asn1js.OctetString({ valueHex: digest })),
          ],
        }),
      }),
    ],
    certificates: [certificate],
  });
  await signed.sign(await importKey(), 0, hash, given);
  return wrap(pkijs.ContentInfo.SIGNED_DATA, signed);
}

const wrap = (contentType, content) =>
  new pkijs.ContentInfo({ contentType, content: content.toSchema(true) }).toSchema().toBER(false);

function structure(type, cms) {
  const info = pkijs.ContentInfo.fromBER(cms);
  if (info.contentType !== type) throw new Error(`PKI.js has no structure for the content type ${info.contentType}`);
  return info.content;
}

async function verify() {
  // A detached structure comes from a file, what it signs from standard input.
  const cms = task.detached ? octets(readFileSync(task.structure)) : given;
  const signed = new pkijs.SignedData({ schema: structure(pkijs.ContentInfo.SIGNED_DATA, cms) });
  const result = await signed.verify({
    signer: 0,
    checkChain: true,
    trustedCerts: [certificateIn(task.root)],
    extendedMode: true,
    ...(task.detached ? { data: given } : {}),
  });
  if (!result.signatureVerified || !result.signerCertificateVerified) throw new Error(result.message || "not verified");
  return task.detached ? new ArrayBuffer(0) : signed.encapContentInfo.eContent.getValue();
}

async function encrypt() {
  const enveloped = new pkijs.EnvelopedData();
  enveloped.addRecipientByCertificate(certificateIn(task.certificate), {
    useOAEP: task.transport === "oaep",
    oaepHashAlgorithm: "SHA-256",
    kdfAlgorithm: "SHA-256",
    kekEncryptionLength: 256,
  });
  const [, length, mode] = task.cipher.match(/^aes-(\d+)-(\w+)$/);
  await enveloped.encrypt({ name: `AES-${mode.toUpperCase()}`, length: Number(length) }, given);
  return wrap(pkijs.ContentInfo.ENVELOPED_DATA, enveloped);
}

async function decrypt() {
  const enveloped = new pkijs.EnvelopedData({ schema: structure(pkijs.ContentInfo.ENVELOPED_DATA, given) });
  return enveloped.decrypt(0, {
    recipientCertificate: certificateIn(task.certificate),
    recipientPrivateKey: octets(derOf(task.key)),
  });
}

try {
  process.stdout.write(Buffer.from(await { sign, verify, encrypt, decrypt }[task.action]()));
} catch (failure) {
  console.error(`PKI.js: ${failure.message || failure.resultMessage || failure.name || failure}`);
  process.exitCode = 1;
}
