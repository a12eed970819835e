import java.io.ByteArrayInputStream;
import java.io.ByteArrayOutputStream;
import java.io.OutputStream;
import java.io.StringReader;
import java.nio.charset.StandardCharsets;
import java.nio.file.Files;
import java.nio.file.Path;
import java.security.KeyPair;
import java.security.KeyPairGenerator;
import java.security.PrivateKey;
import java.security.Security;
import java.security.spec.ECGenParameterSpec;
import java.security.spec.MGF1ParameterSpec;
import java.util.Arrays;
import java.util.Collection;
import java.util.Hashtable;
import java.util.List;
import java.util.Map;
import javax.crypto.spec.OAEPParameterSpec;
import javax.crypto.spec.PSource;
import javax.crypto.spec.SecretKeySpec;
import org.bouncycastle.asn1.ASN1ObjectIdentifier;
import org.bouncycastle.asn1.DERSet;
import org.bouncycastle.asn1.DERUTF8String;
import org.bouncycastle.asn1.cms.Attribute;
import org.bouncycastle.asn1.cms.AttributeTable;
import org.bouncycastle.asn1.pkcs.PKCSObjectIdentifiers;
import org.bouncycastle.asn1.pkcs.PrivateKeyInfo;
import org.bouncycastle.asn1.x509.SubjectKeyIdentifier;
import org.bouncycastle.cert.X509CertificateHolder;
import org.bouncycastle.cert.jcajce.JcaCertStore;
import org.bouncycastle.cert.jcajce.JcaX509CertificateConverter;
import org.bouncycastle.cms.*;
import org.bouncycastle.cms.jcajce.*;
import org.bouncycastle.jcajce.provider.asymmetric.util.ECUtil;
import org.bouncycastle.jce.provider.BouncyCastleProvider;
import org.bouncycastle.openssl.PEMParser;
import org.bouncycastle.openssl.jcajce.JcaPEMKeyConverter;
import org.bouncycastle.operator.ContentSigner;
import org.bouncycastle.operator.OutputAEADEncryptor;
import org.bouncycastle.operator.OutputEncryptor;
import org.bouncycastle.operator.jcajce.JcaAlgorithmParametersConverter;
import org.bouncycastle.operator.jcajce.JcaContentSignerBuilder;
import org.bouncycastle.operator.jcajce.JcaDigestCalculatorProviderBuilder;

/**
 * Does with Bouncy Castle what the file "tasks" in a folder asks for, a line each, and writes a line each to "answers": the
 * name of the task and "done", or what went wrong. The first words of a line are the name and what is to be done; files are
 * named without their folder. One process for all of them, since starting one takes a second.
 */
public class Peer {
    private static Path folder;

    public static void main(String[] arguments) throws Exception {
        Security.addProvider(new BouncyCastleProvider());
        folder = Path.of(arguments[0]);
        StringBuilder answers = new StringBuilder();
        for (String line : Files.readAllLines(folder.resolve("tasks"))) {
            String[] words = line.split(" ");
            String answer;
            try {
                perform(words[1], Arrays.copyOfRange(words, 2, words.length));
                answer = "done";
            } catch (Throwable failure) {
                answer = failure.toString().replace('\n', ' ');
            }
            answers.append(words[0]).append(' ').append(answer).append('\n');
        }
        Files.writeString(folder.resolve("answers"), answers.toString());
    }

    private static void perform(String what, String[] how) throws Exception {
        switch (what) {
            case "sign": sign(how); break;
            case "verify": verify(how); break;
            case "encrypt": encrypt(how); break;
            case "decrypt": decrypt(how); break;
            default: throw new IllegalArgumentException(what);
        }
    }

    private static byte[] bytes(String name) throws Exception {
        return Files.readAllBytes(folder.resolve(name));
    }

    private static Object pem(String name) throws Exception {
        return new PEMParser(new StringReader(new String(bytes(name), StandardCharsets.US_ASCII))).readObject();
    }

    private static X509CertificateHolder certificate(String person) throws Exception {
        return (X509CertificateHolder) pem(person + ".pem");
    }

    private static PrivateKey key(String person) throws Exception {
        return new JcaPEMKeyConverter().setProvider("BC").getPrivateKey((PrivateKeyInfo) pem(person + ".key"));
    }

    private static byte[] keyIdentifier(String person) throws Exception {
        return SubjectKeyIdentifier.fromExtensions(certificate(person).getExtensions()).getKeyIdentifier();
    }

    /** person algorithm attached|detached der|ber attributes|direct issuer|key body out */
    private static void sign(String[] how) throws Exception {
        ContentSigner signer = new JcaContentSignerBuilder(how[1]).setProvider("BC").build(key(how[0]));
        JcaSignerInfoGeneratorBuilder builder = new JcaSignerInfoGeneratorBuilder(
            new JcaDigestCalculatorProviderBuilder().setProvider("BC").build());
        builder.setDirectSignature(how[4].equals("direct"));
        SignerInfoGenerator generator = how[5].equals("issuer")
            ? builder.build(signer, new JcaX509CertificateConverter().setProvider("BC").getCertificate(certificate(how[0])))
            : builder.build(signer, keyIdentifier(how[0]));
        JcaCertStore certificates = new JcaCertStore(List.of(certificate(how[0])));
        byte[] body = bytes(how[6]);
        boolean attached = how[2].equals("attached");
        if (how[3].equals("der")) {
            CMSSignedDataGenerator out = new CMSSignedDataGenerator();
            out.addSignerInfoGenerator(generator);
            out.addCertificates(certificates);
            CMSSignedData made = out.generate(new CMSProcessableByteArray(body), attached);
            Files.write(folder.resolve(how[7]), made.toASN1Structure().getEncoded("DER"));
            return;
        }
        CMSSignedDataStreamGenerator out = new CMSSignedDataStreamGenerator();
        out.setBufferSize(1000);
        out.addSignerInfoGenerator(generator);
        out.addCertificates(certificates);
        ByteArrayOutputStream made = new ByteArrayOutputStream();
        try (OutputStream stream = out.open(made, attached)) {
            stream.write(body);
        }
        Files.write(folder.resolve(how[7]), made.toByteArray());
    }

    /** message body person... */
    private static void verify(String[] how) throws Exception {
        byte[] body = bytes(how[1]);
        CMSSignedData message = new CMSSignedData(bytes(how[0]));
        if (message.isDetachedSignature()) {
            message = new CMSSignedData(new CMSProcessableByteArray(body), bytes(how[0]));
        } else if (!Arrays.equals(body, (byte[]) message.getSignedContent().getContent())) {
            throw new IllegalStateException("another body");
        }
        Collection<SignerInformation> signers = message.getSignerInfos().getSigners();
        if (signers.size() != how.length - 2) {
            throw new IllegalStateException(signers.size() + " signers");
        }
        for (int index = 2; index < how.length; ++index) {
            X509CertificateHolder certificate = certificate(how[index]);
            int found = 0;
            for (SignerInformation signer : signers) {
                if (signer.getSID().match(certificate)) {
                    ++found;
                    if (!signer.verify(new JcaSimpleSignerInfoVerifierBuilder().setProvider("BC").build(certificate))) {
                        throw new IllegalStateException("not signed by " + how[index]);
                    }
                }
            }
            if (found != 1) {
                throw new IllegalStateException(found + " signatures by " + how[index]);
            }
        }
    }

    private static final Map<String, ASN1ObjectIdentifier> ciphers = Map.of(
        "aes128cbc", CMSAlgorithm.AES128_CBC, "aes192cbc", CMSAlgorithm.AES192_CBC, "aes256cbc", CMSAlgorithm.AES256_CBC,
        "des3cbc", CMSAlgorithm.DES_EDE3_CBC, "aes128gcm", CMSAlgorithm.AES128_GCM, "aes192gcm", CMSAlgorithm.AES192_GCM,
        "aes256gcm", CMSAlgorithm.AES256_GCM);
    private static final Map<String, ASN1ObjectIdentifier> agreements = Map.of(
        "ecdh-sha1", CMSAlgorithm.ECDH_SHA1KDF, "ecdh-sha224", CMSAlgorithm.ECDH_SHA224KDF,
        "ecdh-sha256", CMSAlgorithm.ECDH_SHA256KDF, "ecdh-sha384", CMSAlgorithm.ECDH_SHA384KDF,
        "ecdh-sha512", CMSAlgorithm.ECDH_SHA512KDF, "cofactor-sha1", CMSAlgorithm.ECCDH_SHA1KDF,
        "cofactor-sha256", CMSAlgorithm.ECCDH_SHA256KDF, "cofactor-sha512", CMSAlgorithm.ECCDH_SHA512KDF);

    private static OAEPParameterSpec oaep(String digest, String label) {
        return new OAEPParameterSpec(digest, "MGF1", new MGF1ParameterSpec(digest),
            new PSource.PSpecified(label.getBytes(StandardCharsets.US_ASCII)));
    }

    /** kind:person[:...] */
    private static RecipientInfoGenerator recipient(String text) throws Exception {
        String[] how = text.split(":");
        switch (how[0]) {
            case "rsa":
                return new JceKeyTransRecipientInfoGenerator(
                    new JcaX509CertificateConverter().setProvider("BC").getCertificate(certificate(how[1]))).setProvider("BC");
            case "rsa-key":
                return new JceKeyTransRecipientInfoGenerator(keyIdentifier(how[1]),
                    new JcaX509CertificateConverter().setProvider("BC").getCertificate(certificate(how[1])).getPublicKey())
                    .setProvider("BC");
            case "oaep": // oaep:person:digest:label
                return new JceKeyTransRecipientInfoGenerator(
                    new JcaX509CertificateConverter().setProvider("BC").getCertificate(certificate(how[1])),
                    new JcaAlgorithmParametersConverter().getAlgorithmIdentifier(
                        PKCSObjectIdentifiers.id_RSAES_OAEP, oaep(how[2], how.length > 3 ? how[3] : ""))).setProvider("BC");
            case "agree": { // agree:person:algorithm:curve:wrap
                KeyPairGenerator pairs = KeyPairGenerator.getInstance("EC", "BC");
                pairs.initialize(new ECGenParameterSpec(how[3]));
                KeyPair once = pairs.generateKeyPair();
                ASN1ObjectIdentifier wrap = how[4].equals("128") ? CMSAlgorithm.AES128_WRAP
                    : how[4].equals("192") ? CMSAlgorithm.AES192_WRAP : CMSAlgorithm.AES256_WRAP;
                return new JceKeyAgreeRecipientInfoGenerator(agreements.get(how[2]), once.getPrivate(), once.getPublic(), wrap)
                    .addRecipient(new JcaX509CertificateConverter().setProvider("BC").getCertificate(certificate(how[1])))
                    .setProvider("BC");
            }
            case "kek": { // kek:name of a file with the key: identifier is the name
                return new JceKEKRecipientInfoGenerator(how[1].getBytes(StandardCharsets.US_ASCII),
                    new SecretKeySpec(bytes(how[1]), "AES")).setProvider("BC");
            }
            case "password": // password:text:iterations
                return new JcePasswordRecipientInfoGenerator(CMSAlgorithm.AES256_CBC, how[1].toCharArray()).setProvider("BC")
                    .setPRF(PasswordRecipient.PRF.HMacSHA256)
                    .setSaltAndIterationCount(Arrays.copyOf(bytes("body"), 16), Integer.parseInt(how[2]));
            default: throw new IllegalArgumentException(text);
        }
    }

    /** cipher der|ber plain|attributes body out recipient... */
    private static void encrypt(String[] how) throws Exception {
        byte[] body = bytes(how[3]);
        JceCMSContentEncryptorBuilder builder = new JceCMSContentEncryptorBuilder(ciphers.get(how[0])).setProvider("BC");
        byte[] made;
        if (how[0].endsWith("gcm")) {
            CMSAuthEnvelopedDataGenerator out = new CMSAuthEnvelopedDataGenerator();
            for (int index = 5; index < how.length; ++index) {
                out.addRecipientInfoGenerator(recipient(how[index]));
            }
            if (how[2].equals("attributes")) {
                Hashtable<ASN1ObjectIdentifier, Attribute> attributes = new Hashtable<>();
                ASN1ObjectIdentifier type = new ASN1ObjectIdentifier("1.2.3.4.5");
                attributes.put(type, new Attribute(type, new DERSet(new DERUTF8String("said with the content"))));
                out.setAuthenticatedAttributeGenerator(new SimpleAttributeTableGenerator(new AttributeTable(attributes)));
            }
            made = out.generate(new CMSProcessableByteArray(body), (OutputAEADEncryptor) builder.build())
                .toASN1Structure().getEncoded(how[1].equals("der") ? "DER" : "BER");
        } else if (how[1].equals("der")) {
            CMSEnvelopedDataGenerator out = new CMSEnvelopedDataGenerator();
            for (int index = 5; index < how.length; ++index) {
                out.addRecipientInfoGenerator(recipient(how[index]));
            }
            made = out.generate(new CMSProcessableByteArray(body), builder.build()).toASN1Structure().getEncoded("DER");
        } else {
            CMSEnvelopedDataStreamGenerator out = new CMSEnvelopedDataStreamGenerator();
            for (int index = 5; index < how.length; ++index) {
                out.addRecipientInfoGenerator(recipient(how[index]));
            }
            out.setBufferSize(1000);
            ByteArrayOutputStream stream = new ByteArrayOutputStream();
            try (OutputStream content = out.open(stream, builder.build())) {
                content.write(body);
            }
            made = stream.toByteArray();
        }
        Files.write(folder.resolve(how[4]), made);
    }

    /** message body rsa:person|agree:person|kek:name|password:text; authenticated ones: rsa alone, this version has no others */
    private static void decrypt(String[] how) throws Exception {
        byte[] message = bytes(how[0]);
        boolean authenticated = new org.bouncycastle.asn1.ASN1InputStream(message).readObject().toString()
            .contains("1.2.840.113549.1.9.16.1.23");
        RecipientInformationStore recipients = authenticated ? new CMSAuthEnvelopedData(message).getRecipientInfos()
            : new CMSEnvelopedData(message).getRecipientInfos();
        String[] who = how[2].split(":");
        Recipient recipient;
        RecipientId identifier;
        switch (who[0]) {
            case "rsa":
                identifier = new JceKeyTransRecipientId(
                    new JcaX509CertificateConverter().setProvider("BC").getCertificate(certificate(who[1])));
                recipient = authenticated ? new JceKeyTransAuthEnvelopedRecipient(key(who[1])).setProvider("BC")
                    : new JceKeyTransEnvelopedRecipient(key(who[1])).setProvider("BC");
                break;
            case "agree":
                identifier = new JceKeyAgreeRecipientId(
                    new JcaX509CertificateConverter().setProvider("BC").getCertificate(certificate(who[1])));
                recipient = new JceKeyAgreeEnvelopedRecipient(key(who[1])).setProvider("BC");
                break;
            case "kek": {
                SecretKeySpec secret = new SecretKeySpec(bytes(who[1]), "AES");
                identifier = new KEKRecipientId(who[1].getBytes(StandardCharsets.US_ASCII));
                recipient = new JceKEKEnvelopedRecipient(secret).setProvider("BC");
                break;
            }
            case "password":
                identifier = new PasswordRecipientId();
                recipient = new JcePasswordEnvelopedRecipient(who[1].toCharArray()).setProvider("BC");
                break;
            default: throw new IllegalArgumentException(how[2]);
        }
        RecipientInformation found = recipients.get(identifier);
        if (found == null) {
            throw new IllegalStateException("no such recipient");
        }
        if (!Arrays.equals(bytes(how[1]), found.getContent(recipient))) {
            throw new IllegalStateException("another body");
        }
    }
}
